// Runs a fuzz target over files and folders of files: replay PATH... Fails when there is nothing to run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Path = std::filesystem::path;

// False for a file that cannot be read.
bool Replay(const Path& file) {
  std::fprintf(stderr, "%s\n", file.string().c_str());  // The last one named is the one that failed.
  std::ifstream stream(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  // A block of exactly this size, so that a sanitizer sees the first byte read beyond it.
  const auto block = std::make_unique<std::uint8_t[]>(content.size());
  std::copy(content.begin(), content.end(), block.get());
  LLVMFuzzerTestOneInput(block.get(), content.size());
  return !stream.fail();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Path> files;
  for (const Path argument : std::span(argv, static_cast<std::size_t>(argc)).subspan(1)) {
    if (std::filesystem::is_directory(argument)) {
      std::copy(std::filesystem::directory_iterator(argument), {}, std::back_inserter(files));
    } else {
      files.push_back(argument);
    }
  }
  std::sort(files.begin(), files.end());
  return !files.empty() && std::all_of(files.begin(), files.end(), Replay) ? 0 : 1;
}
