#ifndef VIRTUSB_HOST_PICTURE_YUYV_DECODER_H
#define VIRTUSB_HOST_PICTURE_YUYV_DECODER_H

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "remote/CameraModel.h"

namespace vel {

// Decodes a camera's pictures, and makes YUYV of one where it is wanted. No picture is held back: each is there when
// Take returns. One thread.
class YuyvDecoder {
 public:
  // `format` is kMjpeg or kH264; `width` and `height` are of the YUYV pictures. Throws std::runtime_error where this
  // machine's FFmpeg cannot decode it.
  YuyvDecoder(PictureFormat format, int width, int height);
  YuyvDecoder(const YuyvDecoder&) = delete;
  YuyvDecoder& operator=(const YuyvDecoder&) = delete;
  ~YuyvDecoder();

  // Decodes the next picture; it takes the place of the one before. False when it cannot be decoded.
  bool Take(std::span<const std::uint8_t> bytes);
  // Writes the picture that was taken last, width x height x 2 bytes. False when that fails.
  bool Write(std::vector<std::uint8_t>& yuyv);

 private:
  struct Codec;

  const int mWidth;
  const int mHeight;
  const std::unique_ptr<Codec> mCodec;
};

}  // namespace vel

#endif
