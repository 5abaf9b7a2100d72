#ifndef VIRTUSB_TESTS_POLICYS_JPEG_WRITER_H
#define VIRTUSB_TESTS_POLICYS_JPEG_WRITER_H

#include <array>
#include <cstdint>
#include <vector>

namespace vel::test {

// A baseline JPEG of flat 8x8 blocks (their mean is the only coefficient that is not 0), which
// every decoder gives back without loss: what a picture decodes to is known exactly.
struct JpegWriter {
  int width = 32;  // Pixels.
  int height = 32;
  std::array<int, 2> lumaSampling = {2, 1};  // Horizontal, vertical; chroma has 1, 1. {2, 1} is 4:2:2.
  bool grey = false;                         // One component.
  int restartInterval = 0;                   // Units between restart markers; 0: none.
  bool huffmanTables = true;                 // Cameras leave the standard ones out.

  std::vector<std::uint8_t> Write() const;
  // The picture as packed YUYV, by the rule: the chroma of a pair is that of its first pixel.
  std::vector<std::uint8_t> Yuyv() const;

 private:
  // Of a component's block at this pixel.
  std::uint8_t At(int component, int x, int y) const;
};

}  // namespace vel::test

#endif
