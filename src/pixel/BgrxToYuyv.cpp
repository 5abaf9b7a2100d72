#include "pixel/BgrxToYuyv.h"

namespace vel {
namespace {

struct Yuv {
  std::uint8_t y;
  std::uint8_t u;
  std::uint8_t v;
};

// Full-range BT.601, truncated: every result lies within 0 to 255.5.
Yuv Convert(const std::uint8_t* bgrx) {
  const double b = bgrx[0];
  const double g = bgrx[1];
  const double r = bgrx[2];
  return {static_cast<std::uint8_t>(0.299 * r + 0.587 * g + 0.114 * b),
          static_cast<std::uint8_t>(-0.1687 * r - 0.3313 * g + 0.5 * b + 128),
          static_cast<std::uint8_t>(0.5 * r - 0.4187 * g - 0.0813 * b + 128)};
}

}  // namespace

bool BgrxToYuyv(std::span<const std::uint8_t> bgrx, std::uint32_t width, std::uint32_t height,
                std::span<std::uint8_t> yuyv) {
  const std::uint64_t pixels = std::uint64_t{width} * height;
  const std::uint64_t pairs = std::uint64_t{width / 2} * height;
  if (bgrx.size() / 4 < pixels || yuyv.size() / 4 < pairs) {
    return false;
  }
  std::uint8_t* out = yuyv.data();
  for (std::uint32_t row = 0; row < height; ++row) {
    const std::uint8_t* in = bgrx.data() + std::uint64_t{row} * width * 4;
    for (std::uint32_t pair = 0; pair < width / 2; ++pair, in += 8, out += 4) {
      const Yuv left = Convert(in);
      const Yuv right = Convert(in + 4);
      out[0] = left.y;
      out[1] = static_cast<std::uint8_t>((left.u + right.u) / 2);
      out[2] = right.y;
      out[3] = static_cast<std::uint8_t>((left.v + right.v) / 2);
    }
  }
  return true;
}

}  // namespace vel
