#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "os/Files.h"

namespace vel {
namespace {

int OpenForWriting(const std::string& name) {
  static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));  // A file that may not grow is a result here.
  const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
  if (file < 0) {
    throw std::runtime_error("cannot write " + name + ": " +
                             (errno == ENXIO ? "nobody reads it" : std::strerror(errno)));
  }
  return file;
}

}  // namespace

FileHandle OpenFile(const std::string& name, const char* mode) {
  return FileHandle(std::fopen(name.c_str(), (std::string(mode) + "be").c_str()));
}

std::string HowToKeepForOwner(std::FILE* file, const std::string& name) {
  struct stat status {};
  return fstat(fileno(file), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 ? "" : "chmod 600 " + name;
}

WrittenFile::WrittenFile(const std::string& name) : mFile(OpenForWriting(name)) {}

WrittenFile::~WrittenFile() {
  close(mFile);
}

std::ptrdiff_t WrittenFile::Write(std::span<const std::uint8_t> bytes) const {
  return write(mFile, bytes.data(), bytes.size());
}

RawFd WrittenFile::Room() const {
  return mFile;
}

void WrittenFile::Truncate(std::int64_t length) const {
  static_cast<void>(!ftruncate(mFile, length));
}

}  // namespace vel
