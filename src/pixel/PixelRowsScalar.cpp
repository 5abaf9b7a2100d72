#include "pixel/PixelRows.h"

namespace vel {
namespace {

using Byte = std::uint8_t;

void Luma(const Byte* packed, Byte* y, std::size_t pixels) {
  for (std::size_t x = 0; x < pixels; ++x) {
    y[x] = packed[2 * x];
  }
}

void Planar(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels) {
  Luma(packed, y, pixels);
  for (std::size_t pair = 0; pair < pixels / 2; ++pair) {
    u[pair] = packed[4 * pair + 1];
    v[pair] = packed[4 * pair + 3];
  }
}

void SemiPlanar(const Byte* packed, Byte* y, Byte* uv, std::size_t pixels) {
  Luma(packed, y, pixels);
  for (std::size_t x = 0; x < pixels / 2 * 2; ++x) {
    uv[x] = packed[2 * x + 1];
  }
}

// `kStep`: distance of the chroma samples that two neighbouring pairs use.
template <std::size_t kStep>
void Pack(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
  for (std::size_t pair = 0; pair < pixels / 2; ++pair) {
    packed[4 * pair] = y[2 * pair];
    packed[4 * pair + 1] = u[pair * kStep];
    packed[4 * pair + 2] = y[2 * pair + 1];
    packed[4 * pair + 3] = v[pair * kStep];
  }
  if (pixels % 2 != 0) {
    packed[2 * pixels - 2] = y[pixels - 1];
    packed[2 * pixels - 1] = u[pixels / 2 * kStep];
  }
}

}  // namespace

const PixelRows kPixelRowsScalar = {"Scalar", &Luma, &Planar, &SemiPlanar, &Pack<1>, &Pack<2>, [] {}};

}  // namespace vel
