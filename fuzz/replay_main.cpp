// Runs a fuzz target over files and folders of files: replay PATH... Fails when there is nothing to run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Path = std::filesystem::path;

void Replay(const Path& file) {
  std::fprintf(stderr, "%s\n", file.string().c_str());  // The last one named is the one that failed.
  std::ifstream stream(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  if (!stream) {
    throw std::runtime_error("cannot read " + file.string());
  }
  // A block of exactly this size, so that a sanitizer sees the first byte read beyond it.
  const auto block = std::make_unique<std::uint8_t[]>(content.size());
  std::copy(content.begin(), content.end(), block.get());
  LLVMFuzzerTestOneInput(block.get(), content.size());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    std::vector<Path> files;
    for (const char* argument : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
      if (std::filesystem::is_directory(argument)) {
        std::copy(std::filesystem::directory_iterator(argument), {}, std::back_inserter(files));
      } else {
        files.emplace_back(argument);
      }
    }
    if (files.empty()) {
      throw std::runtime_error("no input to replay");
    }
    std::sort(files.begin(), files.end());
    std::for_each(files.begin(), files.end(), Replay);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
