#include <emmintrin.h>

#include "pixel/PixelRowsSimd.h"

namespace vel {
namespace {

struct Sse2 {
  using Byte = std::uint8_t;
  using Reg = __m128i;
  static constexpr char kName[] = "Sse2";
  static constexpr std::size_t kBytes = sizeof(Reg);

  static Reg Load(const Byte* from) { return _mm_loadu_si128(reinterpret_cast<const Reg*>(from)); }
  static void Store(Byte* to, Reg bytes) { _mm_storeu_si128(reinterpret_cast<Reg*>(to), bytes); }
  static void Stream(Byte* to, Reg bytes) { _mm_stream_si128(reinterpret_cast<Reg*>(to), bytes); }
  static void Fence() { _mm_sfence(); }
  static Reg LowBytes(Reg words) { return _mm_and_si128(words, _mm_set1_epi16(0x00FF)); }
  static Reg Even(Reg a, Reg b) { return _mm_packus_epi16(LowBytes(a), LowBytes(b)); }
  static Reg Odd(Reg a, Reg b) { return _mm_packus_epi16(_mm_srli_epi16(a, 8), _mm_srli_epi16(b, 8)); }
  static Reg ZipLow(Reg a, Reg b) { return _mm_unpacklo_epi8(a, b); }
  static Reg ZipHigh(Reg a, Reg b) { return _mm_unpackhi_epi8(a, b); }
  static Reg EvenOfBoth(Reg a, Reg b) { return _mm_or_si128(LowBytes(a), _mm_slli_epi16(b, 8)); }
};

}  // namespace

const PixelRows kPixelRowsSse2 = SimdRows<Sse2, kPixelRowsScalar>::kRows;

}  // namespace vel
