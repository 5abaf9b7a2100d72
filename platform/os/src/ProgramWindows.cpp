#include "os/Program.h"
#include "os/Text.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <set>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace vel {
namespace {

struct LibraryCloser {
  void operator()(HMODULE library) const { FreeLibrary(library); }
};
using LibraryHandle = std::unique_ptr<std::remove_pointer_t<HMODULE>, LibraryCloser>;

// The libraries that one asks for, by the table in its file as it is mapped.
std::vector<std::string> NeededBy(HMODULE library) {
  const auto* const base =
      reinterpret_cast<const std::byte*>(reinterpret_cast<std::uintptr_t>(library) & ~std::uintptr_t{3});
  const auto* const start = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + start->e_lfanew);
  const IMAGE_DATA_DIRECTORY& table = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  std::vector<std::string> names;
  if (headers->OptionalHeader.Magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC && table.VirtualAddress != 0) {
    for (const auto* each = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + table.VirtualAddress);
         each->Name != 0; ++each) {
      names.emplace_back(reinterpret_cast<const char*>(base + each->Name));
    }
  }
  return names;
}

// The first library in the way of loading this one that is nowhere to be found: neither loaded already, nor beside it,
// nor the system's, nor in PATH.
std::optional<std::string> MissingFor(const std::wstring& path, std::set<std::wstring>& seen) {
  const LibraryHandle mapped(LoadLibraryExW(path.c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES));
  if (mapped == nullptr || !seen.insert(path).second) {
    return std::nullopt;
  }
  std::wstring system(MAX_PATH, L'\0');
  system.resize(GetSystemDirectoryW(system.data(), MAX_PATH));
  const wchar_t* const more = _wgetenv(L"PATH");
  const std::wstring places =
      path.substr(0, path.find_last_of(L'\\')) + L";" + system + L";" + (more == nullptr ? L"" : more);
  for (const std::string& name : NeededBy(mapped.get())) {
    if (GetModuleHandleA(name.c_str()) != nullptr || name.starts_with("api-ms-") || name.starts_with("ext-ms-")) {
      continue;
    }
    std::array<wchar_t, 4096> found{};
    if (SearchPathW(places.c_str(), ToWide(name).c_str(), nullptr, static_cast<DWORD>(found.size()), found.data(),
                    nullptr) == 0) {
      return name;
    }
    if (auto deeper = MissingFor(found.data(), seen)) {
      return deeper;
    }
  }
  return std::nullopt;
}

}  // namespace

std::filesystem::path ProgramPath() {
  std::wstring path(32768, L'\0');  // The most that the system has.
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path;
}

std::vector<std::string> ProgramArguments(int /*argc*/, char** /*argv*/) {
  return WordsOf(GetCommandLineW());
}

std::chrono::microseconds ProcessCpuTime() {
  FILETIME made{};
  FILETIME ended{};
  std::array<FILETIME, 2> used{};
  GetProcessTimes(GetCurrentProcess(), &made, &ended, &used[0], &used[1]);
  std::uint64_t ticks = 0;  // Of 100 ns.
  for (const FILETIME& each : used) {
    ticks += (std::uint64_t{each.dwHighDateTime} << 32U) + each.dwLowDateTime;
  }
  return std::chrono::microseconds(ticks / 10);
}

void KeepFreedMemory() {}  // The heap's own affair here.

void IgnoreBrokenPipes() {}  // It is an error.

std::tm LocalTime(std::time_t time) {
  std::tm local{};
  localtime_s(&local, &time);
  return local;
}

std::string UsualTlsFolder() {
  const wchar_t* const shared = _wgetenv(L"ProgramData");
  return (shared == nullptr ? std::string("C:\\ProgramData") : FromWide(shared)) + "\\virtusb\\pki";
}

void* OpenLibrary(const std::filesystem::path& path, std::string& problem) {
  const HMODULE library = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (library == nullptr) {
    const DWORD error = GetLastError();
    std::set<std::wstring> seen;
    const auto missing = error == ERROR_MOD_NOT_FOUND ? MissingFor(path.native(), seen) : std::nullopt;
    problem = missing                         ? "it needs " + *missing + ", which is neither beside it nor in PATH"
              : error == ERROR_BAD_EXE_FORMAT ? "it is no library for 64-bit programs (x86-64)"
                                              : SystemErrorText(error);
  }
  return library;
}

void* FindSymbol(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void CloseLibrary(void* library) {
  FreeLibrary(static_cast<HMODULE>(library));
}

}  // namespace vel
