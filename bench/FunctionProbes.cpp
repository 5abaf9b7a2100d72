#include "FunctionProbes.h"

#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "GuestBench.h"
#include "remote/FdStream.h"

namespace vel::bench {
namespace {

std::filesystem::path Tracing() {
  return "/sys/kernel/tracing";
}
std::filesystem::path Events() {
  return Tracing() / "events/bench";
}

template <class Record>
std::vector<Record> Table(const std::string& bytes, std::uint64_t offset, std::uint64_t count) {
  std::vector<Record> records(count);
  Require(offset + count * sizeof(Record) <= bytes.size(), "an ELF file is cut short");
  std::memcpy(records.data(), bytes.data() + offset, count * sizeof(Record));
  return records;
}

// Where in the file a function begins.
std::uint64_t OffsetOf(const std::string& program, const std::string& symbol) {
  std::ifstream stream(program, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
  const Elf64_Ehdr header = Table<Elf64_Ehdr>(bytes, 0, 1).front();
  const auto sections = Table<Elf64_Shdr>(bytes, header.e_shoff, header.e_shnum);
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_SYMTAB) {
      continue;
    }
    for (const Elf64_Sym& each : Table<Elf64_Sym>(bytes, section.sh_offset, section.sh_size / sizeof(Elf64_Sym))) {
      if (symbol != bytes.c_str() + sections[section.sh_link].sh_offset + each.st_name) {
        continue;
      }
      for (const Elf64_Phdr& segment : Table<Elf64_Phdr>(bytes, header.e_phoff, header.e_phnum)) {
        if (segment.p_type == PT_LOAD && each.st_value - segment.p_vaddr < segment.p_filesz) {
          return each.st_value - segment.p_vaddr + segment.p_offset;
        }
      }
    }
  }
  Require(false, program + " has no function " + symbol);
  return 0;
}

}  // namespace

FunctionProbes::FunctionProbes(const std::vector<Probe>& probes) {
  Remove();
  for (const Probe& probe : probes) {
    std::array<char, 32> offset{};
    static_cast<void>(std::snprintf(offset.data(), offset.size(), ":0x%llx ",
                                    static_cast<unsigned long long>(OffsetOf(probe.program, probe.symbol))));
    Write(Tracing() / "uprobe_events",
          (probe.atReturn ? "r:bench/" : "p:bench/") + probe.event + " " + probe.program + offset.data() + probe.fetch);
  }
  Write(Tracing() / "trace_clock", "mono");
  Write(Tracing() / "trace", "");
  Write(Events() / "enable", "1");
  Write(Tracing() / "tracing_on", "1");
}

FunctionProbes::~FunctionProbes() {
  Remove();
}

void FunctionProbes::Remove() {
  if (std::filesystem::exists(Events())) {
    Write(Events() / "enable", "0");
    Write(Tracing() / "uprobe_events", "");
  }
}

// Without O_TRUNC, by which the kernel would remove all probes.
void FunctionProbes::Write(const std::filesystem::path& file, const std::string& text) {
  const UniqueFd fd(open(file.c_str(), O_WRONLY | (text.empty() ? O_TRUNC : 0)));
  Require(fd.IsValid() && write(fd.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          "the kernel does not take \"" + text + "\" in " + file.string() + ": " + std::strerror(errno));
}

std::vector<FunctionProbes::Happened> FunctionProbes::Take() const {
  std::vector<Happened> all;
  std::ifstream stream(Tracing() / "trace");
  // As "  program-205  [001] .....  12.345678: event: (0x55d0c7f2a0) byte=0x12"
  for (std::string line; std::getline(stream, line);) {
    std::array<char, 64> event{};
    Happened happened;
    const std::size_t processor = line.find(" [");
    if (line.starts_with('#') || processor == std::string::npos ||
        // NOLINTNEXTLINE(cert-err34-c): the kernel's own figures.
        std::sscanf(line.c_str() + processor, " [%*d] %*s %lf: %63[^:]: (%*[^)]) %*[^=]=%i", &happened.time,
                    event.data(), &happened.value) < 2) {
      continue;
    }
    happened.event = event.data();
    all.push_back(happened);
  }
  std::ranges::stable_sort(all, {}, &Happened::time);
  return all;
}

}  // namespace vel::bench
