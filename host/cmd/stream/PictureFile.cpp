#include "cmd/stream/PictureFile.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace vel {

PictureFile::PictureFile(const std::string& path) : mPath(path), mFile(OpenFile(path, "w")) {
  if (mFile == nullptr) {
    Fail();
  }
}

PictureFile::~PictureFile() {
  std::error_code ignored;
  if (mEmpty && std::filesystem::is_regular_file(PathOf(mPath), ignored)) {
    std::filesystem::remove(PathOf(mPath), ignored);
  }
}

void PictureFile::Fail() const {
  throw std::runtime_error("cannot write " + mPath + ": " + std::strerror(errno));
}

void PictureFile::Write(std::span<const std::uint8_t> picture) {
  mEmpty = false;
  if (std::fwrite(picture.data(), 1, picture.size(), mFile.get()) != picture.size()) {
    Fail();
  }
}

void PictureFile::Close() {
  if (std::fclose(mFile.release()) != 0) {
    Fail();
  }
}

}  // namespace vel
