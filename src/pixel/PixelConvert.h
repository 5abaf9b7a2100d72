// Pictures between packed YUYV and planes. Nothing is interpolated: the rows and samples that are
// not taken are dropped, those that are missing are repeated.
//
// Sizes in pixels; 0 or less does nothing. The last pixel of an odd row has Y and U only in packed
// form; chroma planes that are written have width / 2 by height / 2 samples, those that are read
// have one more for an odd size. Strides in bytes. Any thread.
#ifndef VEL_PIXEL_PIXEL_CONVERT_H
#define VEL_PIXEL_PIXEL_CONVERT_H

#include <cstddef>
#include <cstdint>

#include "pixel/PixelRows.h"

namespace vel {

struct PlaneOut {
  std::uint8_t* data = nullptr;
  std::ptrdiff_t stride = 0;
};
struct PlaneIn {
  const std::uint8_t* data = nullptr;
  std::ptrdiff_t stride = 0;
};

enum class ChromaLayout { k420, k422, k444 };

// The fastest version for this processor.
const PixelRows& BestPixelRows();

// Planar 4:2:0; chroma from the odd rows. `packed` has width * height * 2 bytes.
void YuyvToPlanar(const std::uint8_t* packed, PlaneOut y, PlaneOut u, PlaneOut v, int width, int height,
                  const PixelRows& rows = BestPixelRows());

// Luma and interleaved chroma (NV12); chroma from the even rows.
void YuyvToSemiPlanar(const std::uint8_t* packed, PlaneOut y, PlaneOut uv, int width, int height,
                      const PixelRows& rows = BestPixelRows());

// Packed YUYV; 4:2:0 repeats each chroma row, 4:4:4 drops every second chroma sample.
void PlanarToYuyv(ChromaLayout layout, PlaneIn y, PlaneIn u, PlaneIn v, std::uint8_t* packed, int width, int height,
                  const PixelRows& rows = BestPixelRows());

}  // namespace vel

#endif
