#ifndef VIRTUSB_HOST_CMD_STREAM_SNAPSHOT_H
#define VIRTUSB_HOST_CMD_STREAM_SNAPSHOT_H

#include <cstdint>
#include <utility>
#include <vector>

#include "cmd/stream/PictureFile.h"
#include "cmd/stream/PictureSize.h"
#include "remote/CameraModel.h"

namespace vel {

// The latest of a stream's pictures that can be decoded by itself, for a PNG file. One thread.
class Snapshot {
 public:
  // Takes a key picture over.
  void Keep(PictureFormat format, std::vector<std::uint8_t> picture) {
    mFormat = format;
    mPicture = std::move(picture);
  }

  // Decodes the picture, writes it and closes the file. `size` is that of raw pictures, others say their own. Throws
  // std::runtime_error that names the file when there is no picture, it cannot be decoded or the file not written.
  void WritePng(PictureFile& file, const PictureSize& size) const;

 private:
  PictureFormat mFormat = PictureFormat::kOther;
  std::vector<std::uint8_t> mPicture;
};

}  // namespace vel

#endif
