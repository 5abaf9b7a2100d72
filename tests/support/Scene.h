#ifndef VIRTUSB_TESTS_SUPPORT_SCENE_H
#define VIRTUSB_TESTS_SUPPORT_SCENE_H

#include <cstdint>
#include <span>
#include <vector>

#include "codec/UVCFrame.h"

namespace vel::test {

using Bytes = std::vector<std::uint8_t>;

// A moving picture with the statistics of a photograph: a textured ground under a slow pan, an object that crosses it,
// and a sensor's noise. The same size and number always give the same picture.
class Scene {
 public:
  // Even width.
  Scene(int width, int height);

  // Picture number `number` as YUYV, width * height * 2 bytes.
  void Draw(int number, std::span<std::uint8_t> yuyv) const;
  Bytes Draw(int number) const;

 private:
  std::uint8_t Texture(int x, int y) const;

  int mWidth;
  int mHeight;
  Bytes mTexture;
};

// A frame with a copy of the bytes.
UVCFramePtr MakeFrame(std::span<const std::uint8_t> bytes, std::uint32_t index);

// Peak signal-to-noise ratio of the luma of two YUYV pictures, in dB.
double LumaPsnr(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b);

// The picture as FFmpeg's own encoder makes a JPEG of it, 4:2:2, at a webcam's quality.
Bytes EncodeJpeg(std::span<const std::uint8_t> yuyv, int width, int height);

}  // namespace vel::test

#endif
