#ifndef VIRTUSB_HOST_CMD_STREAM_PICTURE_SIZE_H
#define VIRTUSB_HOST_CMD_STREAM_PICTURE_SIZE_H

#include <cstdint>
#include <string>

namespace vel {

struct PictureSize {
  std::uint16_t width = 0;  // Pixels.
  std::uint16_t height = 0;

  friend bool operator==(const PictureSize&, const PictureSize&) = default;
  std::string Text() const { return std::to_string(width) + "x" + std::to_string(height); }
};

}  // namespace vel

#endif
