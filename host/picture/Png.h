#ifndef VIRTUSB_HOST_PICTURE_PNG_H
#define VIRTUSB_HOST_PICTURE_PNG_H

#include <cstdint>
#include <span>
#include <vector>

#include "remote/CameraModel.h"

namespace vel {

// Decodes a picture that needs no other one, and makes a PNG file's bytes of it. `width` and `height`, pixels, are
// those of raw pictures; others say their own. Throws std::runtime_error, with a text for people, where it cannot be
// done.
std::vector<std::uint8_t> MakePng(PictureFormat format, std::span<const std::uint8_t> picture, std::uint16_t width,
                                  std::uint16_t height);

}  // namespace vel

#endif
