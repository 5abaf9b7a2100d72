#include "pixel/PixelConvert.h"

#include <algorithm>

namespace vel {

const PixelRows& BestPixelRows() {
  static const PixelRows& best = []() -> const PixelRows& {
    const PixelRowsChoice choice = AvailablePixelRows();
    return *choice.versions[choice.count - 1];
  }();
  return best;
}

void YuyvToPlanar(const std::uint8_t* packed, PlaneOut y, PlaneOut u, PlaneOut v, int width, int height,
                  const PixelRows& rows) {
  const auto pixels = static_cast<std::size_t>(std::max(width, 0));
  for (int row = 0; row < height; ++row) {
    if (row % 2 == 0) {
      rows.luma(packed, y.data, pixels);
    } else {
      rows.planar(packed, y.data, u.data, v.data, pixels);
      u.data += u.stride;
      v.data += v.stride;
    }
    packed += 2 * pixels;
    y.data += y.stride;
  }
  rows.finish();
}

void YuyvToSemiPlanar(const std::uint8_t* packed, PlaneOut y, PlaneOut uv, int width, int height,
                      const PixelRows& rows) {
  const auto pixels = static_cast<std::size_t>(std::max(width, 0));
  for (int row = 0; row < height; ++row) {
    // The last row of an odd height has no chroma row of its own.
    if (row % 2 == 0 && row + 1 < height) {
      rows.semiPlanar(packed, y.data, uv.data, pixels);
      uv.data += uv.stride;
    } else {
      rows.luma(packed, y.data, pixels);
    }
    packed += 2 * pixels;
    y.data += y.stride;
  }
  rows.finish();
}

void PlanarToYuyv(ChromaLayout layout, PlaneIn y, PlaneIn u, PlaneIn v, std::uint8_t* packed, int width, int height,
                  const PixelRows& rows) {
  const auto pixels = static_cast<std::size_t>(std::max(width, 0));
  const auto pack = layout == ChromaLayout::k444 ? rows.packFull : rows.pack;
  for (int row = 0; row < height; ++row) {
    const std::ptrdiff_t chromaRow = layout == ChromaLayout::k420 ? row / 2 : row;
    pack(y.data + row * y.stride, u.data + chromaRow * u.stride, v.data + chromaRow * v.stride, packed, pixels);
    packed += 2 * pixels;
  }
}

}  // namespace vel
