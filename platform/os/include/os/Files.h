// Files by names in UTF-8.
#ifndef VIRTUSB_PLATFORM_OS_FILES_H
#define VIRTUSB_PLATFORM_OS_FILES_H

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include "os/Fd.h"

namespace vel {

inline std::filesystem::path PathOf(const std::string& name) {
  return std::u8string(name.begin(), name.end());
}
inline std::string NameOf(const std::filesystem::path& path) {
  const std::u8string name = path.u8string();
  return {name.begin(), name.end()};
}

struct FileCloser {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// fopen's, binary, not handed on to programs that are run: "r" or "w". Null with errno.
FileHandle OpenFile(const std::string& name, const char* mode);

// What to do, for people, when others than its owner may read the file; empty when none may. On Windows,
// where administrators always may, of groups to which everybody belongs.
std::string HowToKeepForOwner(std::FILE* file, const std::string& name);

// A file that is written without waiting, or a FIFO that somebody reads. One thread.
class WrittenFile {
 public:
  // Replaces what is there. Throws std::runtime_error that names it. From here on the process ignores the signal for a
  // file that may not grow.
  explicit WrittenFile(const std::string& name);
  WrittenFile(const WrittenFile&) = delete;
  WrittenFile& operator=(const WrittenFile&) = delete;
  ~WrittenFile();

  // How much was written, or -1 with an errno: EAGAIN when Room() has to become writable first.
  std::ptrdiff_t Write(std::span<const std::uint8_t> bytes) const;
  RawFd Room() const;
  // A FIFO has what it has.
  void Truncate(std::int64_t length) const;

 private:
  const int mFile;
};

}  // namespace vel

#endif
