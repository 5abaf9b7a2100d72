// What can be told of a picture by its bytes.
#ifndef VIRTUSB_HOST_CMD_STREAM_PICTURE_BYTES_H
#define VIRTUSB_HOST_CMD_STREAM_PICTURE_BYTES_H

#include <cstdint>
#include <optional>
#include <span>

#include "cmd/stream/GuestCamera.h"

namespace vel {

// The format that a stream's picture came in: the agreed one, or what became of it on the way. Nothing when the bytes
// are no whole picture of either.
std::optional<PictureFormat> FormatOfPicture(std::span<const std::uint8_t> picture, const GuestCamera::Stream& stream);

// Whether a decoder can begin with this picture.
bool IsKeyPicture(PictureFormat format, std::span<const std::uint8_t> picture);

}  // namespace vel

#endif
