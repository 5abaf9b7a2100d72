#include "cmd/stream/Snapshot.h"

#include <stdexcept>

#include "picture/Png.h"

namespace vel {

void Snapshot::WritePng(PictureFile& file, const PictureSize& size) const {
  std::vector<std::uint8_t> png;
  try {
    if (mPicture.empty()) {
      throw std::runtime_error("no picture came that can be decoded by itself");
    }
    png = MakePng(mFormat, mPicture, size.width, size.height);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error("no snapshot in " + file.Path() + ": " + error.what());
  }
  file.Write(png);
  file.Close();
}

}  // namespace vel
