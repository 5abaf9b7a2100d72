#include <emmintrin.h>

#include "policys/PixelRows.h"

namespace vel {
namespace {

using Byte = std::uint8_t;

__m128i Load(const Byte* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}
void Store(Byte* to, __m128i bytes) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), bytes);
}

// The even and the odd bytes of two registers.
__m128i Even(__m128i a, __m128i b) {
  const __m128i low = _mm_set1_epi16(0x00FF);
  return _mm_packus_epi16(_mm_and_si128(a, low), _mm_and_si128(b, low));
}
__m128i Odd(__m128i a, __m128i b) {
  return _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8));
}

void Luma(const Byte* packed, Byte* y, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 16 <= pixels; x += 16) {
    Store(y + x, Even(Load(packed + 2 * x), Load(packed + 2 * x + 16)));
  }
  kPixelRowsScalar.luma(packed + 2 * x, y + x, pixels - x);
}

// Past the caches; aligned.
template <bool kStream>
void StoreChroma(Byte* to, __m128i bytes) {
  if constexpr (kStream) {
    _mm_stream_si128(reinterpret_cast<__m128i*>(to), bytes);
  } else {
    Store(to, bytes);
  }
}

template <bool kStream>
void PlanarRow(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 32 <= pixels; x += 32) {
    const __m128i a = Load(packed + 2 * x);
    const __m128i b = Load(packed + 2 * x + 16);
    const __m128i c = Load(packed + 2 * x + 32);
    const __m128i d = Load(packed + 2 * x + 48);
    Store(y + x, Even(a, b));
    Store(y + x + 16, Even(c, d));
    const __m128i uvLow = Odd(a, b);
    const __m128i uvHigh = Odd(c, d);
    StoreChroma<kStream>(u + x / 2, Even(uvLow, uvHigh));
    StoreChroma<kStream>(v + x / 2, Odd(uvLow, uvHigh));
  }
  if constexpr (kStream) {
    _mm_sfence();
  }
  kPixelRowsScalar.planar(packed + 2 * x, y + x, u + x / 2, v + x / 2, pixels - x);
}

void Planar(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels) {
  const bool aligned =
      (reinterpret_cast<std::uintptr_t>(u) | reinterpret_cast<std::uintptr_t>(v)) % sizeof(__m128i) == 0;
  if (aligned && pixels >= kStreamFromPixels) {
    PlanarRow<true>(packed, y, u, v, pixels);
  } else {
    PlanarRow<false>(packed, y, u, v, pixels);
  }
}

void SemiPlanar(const Byte* packed, Byte* y, Byte* uv, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 16 <= pixels; x += 16) {
    const __m128i a = Load(packed + 2 * x);
    const __m128i b = Load(packed + 2 * x + 16);
    Store(y + x, Even(a, b));
    Store(uv + x, Odd(a, b));
  }
  kPixelRowsScalar.semiPlanar(packed + 2 * x, y + x, uv + x, pixels - x);
}

void StorePacked(Byte* packed, __m128i y, __m128i uv) {
  Store(packed, _mm_unpacklo_epi8(y, uv));
  Store(packed + 16, _mm_unpackhi_epi8(y, uv));
}

void Pack(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
  std::size_t x = 0;
  for (; x + 32 <= pixels; x += 32) {
    const __m128i blue = Load(u + x / 2);
    const __m128i red = Load(v + x / 2);
    StorePacked(packed + 2 * x, Load(y + x), _mm_unpacklo_epi8(blue, red));
    StorePacked(packed + 2 * x + 32, Load(y + x + 16), _mm_unpackhi_epi8(blue, red));
  }
  kPixelRowsScalar.pack(y + x, u + x / 2, v + x / 2, packed + 2 * x, pixels - x);
}

void PackFull(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
  const __m128i low = _mm_set1_epi16(0x00FF);
  std::size_t x = 0;
  for (; x + 16 <= pixels; x += 16) {
    const __m128i uv = _mm_or_si128(_mm_and_si128(Load(u + x), low), _mm_slli_epi16(Load(v + x), 8));
    StorePacked(packed + 2 * x, Load(y + x), uv);
  }
  kPixelRowsScalar.packFull(y + x, u + x, v + x, packed + 2 * x, pixels - x);
}

}  // namespace

const PixelRows kPixelRowsSse2 = {&Luma, &Planar, &SemiPlanar, &Pack, &PackFull};

}  // namespace vel
