#ifndef VIRTUSB_HOST_CMD_STREAM_PICTURE_FILE_H
#define VIRTUSB_HOST_CMD_STREAM_PICTURE_FILE_H

#include <cstdint>
#include <span>
#include <string>

#include "os/Files.h"

namespace vel {

// Pictures in a file, one behind the other and nothing between them. One thread. Everything throws std::runtime_error
// that names the file.
class PictureFile {
 public:
  // Replaces the file.
  explicit PictureFile(const std::string& path);
  PictureFile(const PictureFile&) = delete;
  PictureFile& operator=(const PictureFile&) = delete;
  // Removes a file that nothing was written to.
  ~PictureFile();

  const std::string& Path() const { return mPath; }
  void Write(std::span<const std::uint8_t> picture);
  // What was written is in the file then, or has failed to be. Nothing is written after it.
  void Close();

 private:
  [[noreturn]] void Fail() const;

  const std::string mPath;
  FileHandle mFile;
  bool mEmpty = true;
};

}  // namespace vel

#endif
