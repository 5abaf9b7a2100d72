// Rows of pixels taken apart and put together, in a version for each instruction set.
#ifndef VEL_PIXEL_PIXEL_ROWS_H
#define VEL_PIXEL_PIXEL_ROWS_H

#include <cstddef>
#include <cstdint>

namespace vel {

// From this width on rows write past the caches where that can be, for plain stores would first read what they
// overwrite, and leave the client's own work its caches. Narrower rows have lines of chroma in parts.
inline constexpr std::size_t kStreamFromPixels = 512;

// One version's functions. Packed rows are Y0 U Y1 V ... with 2 * pixels bytes; the last pixel of
// an odd row has Y and U only, and gives no chroma sample when a row is split. Rows do not overlap
// and need no alignment; no byte outside them is touched. Any thread.
struct PixelRows {
  using Byte = std::uint8_t;
  const char* name;
  // Luma of a packed row.
  void (*luma)(const Byte* packed, Byte* y, std::size_t pixels);
  // Luma, and pixels / 2 samples of U and of V.
  void (*planar)(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels);
  // Luma, and pixels / 2 pairs U V.
  void (*semiPlanar)(const Byte* packed, Byte* y, Byte* uv, std::size_t pixels);
  // A packed row from chroma of half the width, (pixels + 1) / 2 samples each.
  void (*pack)(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels);
  // A packed row from chroma of full width, of which every second sample is dropped.
  void (*packFull)(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels);
  // Behind the last row of a picture that was taken apart: what was written past the caches is there for other threads.
  // After each row it would cost half as much again as the rows.
  void (*finish)();
};

extern const PixelRows kPixelRowsScalar;
// Only where the build is for x86-64, of which SSE2 is a part.
extern const PixelRows kPixelRowsSse2;
// Only on processors that have AVX2.
extern const PixelRows kPixelRowsAvx2;
// Only on processors that have AVX-512 with byte permutes. The first ones with AVX-512 have not, and run slower for a
// while after wide registers were used.
extern const PixelRows kPixelRowsAvx512;

// Every version that this processor can run, the fastest last. Never empty.
struct PixelRowsChoice {
  const PixelRows* versions[4];
  std::size_t count;
};
PixelRowsChoice AvailablePixelRows();

}  // namespace vel

#endif
