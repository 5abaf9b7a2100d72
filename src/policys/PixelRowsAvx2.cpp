// Compiled for AVX2. Nothing of the standard library is instantiated here: the linker might keep
// this file's version of an inline function for the whole program.
#include <immintrin.h>

#include "policys/PixelRows.h"

namespace vel {
namespace {

using Byte = std::uint8_t;

__m256i Load(const Byte* from) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}
void Store(Byte* to, __m256i bytes) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), bytes);
}
// Puts the quarters 0 2 1 3 in order, which the 128-bit halves of a pack or unpack swap.
__m256i Ordered(__m256i bytes) {
  return _mm256_permute4x64_epi64(bytes, 0xD8);
}

// The even and the odd bytes of two registers.
__m256i Even(__m256i a, __m256i b) {
  const __m256i low = _mm256_set1_epi16(0x00FF);
  return Ordered(_mm256_packus_epi16(_mm256_and_si256(a, low), _mm256_and_si256(b, low)));
}
__m256i Odd(__m256i a, __m256i b) {
  return Ordered(_mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8)));
}

void Luma(const Byte* packed, Byte* y, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 64 <= pixels; x += 64) {
    Store(y + x, Even(Load(packed + 2 * x), Load(packed + 2 * x + 32)));
    Store(y + x + 32, Even(Load(packed + 2 * x + 64), Load(packed + 2 * x + 96)));
  }
  kPixelRowsSse2.luma(packed + 2 * x, y + x, pixels - x);
}

// Past the caches; aligned.
template <bool kStream>
void StoreChroma(Byte* to, __m256i bytes) {
  if constexpr (kStream) {
    _mm256_stream_si256(reinterpret_cast<__m256i*>(to), bytes);
  } else {
    Store(to, bytes);
  }
}

template <bool kStream>
void PlanarRow(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 64 <= pixels; x += 64) {
    const __m256i a = Load(packed + 2 * x);
    const __m256i b = Load(packed + 2 * x + 32);
    const __m256i c = Load(packed + 2 * x + 64);
    const __m256i d = Load(packed + 2 * x + 96);
    Store(y + x, Even(a, b));
    Store(y + x + 32, Even(c, d));
    const __m256i uvLow = Odd(a, b);
    const __m256i uvHigh = Odd(c, d);
    StoreChroma<kStream>(u + x / 2, Even(uvLow, uvHigh));
    StoreChroma<kStream>(v + x / 2, Odd(uvLow, uvHigh));
  }
  if constexpr (kStream) {
    _mm_sfence();
  }
  kPixelRowsSse2.planar(packed + 2 * x, y + x, u + x / 2, v + x / 2, pixels - x);
}

void Planar(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels) {
  const bool aligned =
      (reinterpret_cast<std::uintptr_t>(u) | reinterpret_cast<std::uintptr_t>(v)) % sizeof(__m256i) == 0;
  if (aligned && pixels >= kStreamFromPixels) {
    PlanarRow<true>(packed, y, u, v, pixels);
  } else {
    PlanarRow<false>(packed, y, u, v, pixels);
  }
}

void SemiPlanar(const Byte* packed, Byte* y, Byte* uv, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 32 <= pixels; x += 32) {
    const __m256i a = Load(packed + 2 * x);
    const __m256i b = Load(packed + 2 * x + 32);
    Store(y + x, Even(a, b));
    Store(uv + x, Odd(a, b));
  }
  kPixelRowsSse2.semiPlanar(packed + 2 * x, y + x, uv + x, pixels - x);
}

void StorePacked(Byte* packed, __m256i y, __m256i uv) {
  const __m256i luma = Ordered(y);
  const __m256i chroma = Ordered(uv);
  Store(packed, _mm256_unpacklo_epi8(luma, chroma));
  Store(packed + 32, _mm256_unpackhi_epi8(luma, chroma));
}

void Pack(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 64 <= pixels; x += 64) {
    const __m256i blue = Ordered(Load(u + x / 2));
    const __m256i red = Ordered(Load(v + x / 2));
    StorePacked(packed + 2 * x, Load(y + x), _mm256_unpacklo_epi8(blue, red));
    StorePacked(packed + 2 * x + 64, Load(y + x + 32), _mm256_unpackhi_epi8(blue, red));
  }
  kPixelRowsSse2.pack(y + x, u + x / 2, v + x / 2, packed + 2 * x, pixels - x);
}

void PackFull(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
  const __m256i low = _mm256_set1_epi16(0x00FF);
  std::size_t x = 0;
  for (; x + 32 <= pixels; x += 32) {
    const __m256i uv = _mm256_or_si256(_mm256_and_si256(Load(u + x), low), _mm256_slli_epi16(Load(v + x), 8));
    StorePacked(packed + 2 * x, Load(y + x), uv);
  }
  kPixelRowsSse2.packFull(y + x, u + x, v + x, packed + 2 * x, pixels - x);
}

}  // namespace

const PixelRows kPixelRowsAvx2 = {&Luma, &Planar, &SemiPlanar, &Pack, &PackFull};

}  // namespace vel
