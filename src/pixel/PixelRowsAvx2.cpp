// Compiled for AVX2.
#include <immintrin.h>

#include "pixel/PixelRowsSimd.h"

namespace vel {
namespace {

struct Avx2 {
  using Byte = std::uint8_t;
  using Reg = __m256i;
  static constexpr char kName[] = "Avx2";
  static constexpr std::size_t kBytes = sizeof(Reg);

  static Reg Load(const Byte* from) { return _mm256_loadu_si256(reinterpret_cast<const Reg*>(from)); }
  static void Store(Byte* to, Reg bytes) { _mm256_storeu_si256(reinterpret_cast<Reg*>(to), bytes); }
  static void Stream(Byte* to, Reg bytes) { _mm256_stream_si256(reinterpret_cast<Reg*>(to), bytes); }
  static void Fence() { _mm_sfence(); }
  // Swaps the middle quarters, since a pack or an unpack works on each 128-bit half by itself.
  static Reg Ordered(Reg bytes) { return _mm256_permute4x64_epi64(bytes, 0xD8); }
  static Reg LowBytes(Reg words) { return _mm256_and_si256(words, _mm256_set1_epi16(0x00FF)); }
  static Reg Even(Reg a, Reg b) { return Ordered(_mm256_packus_epi16(LowBytes(a), LowBytes(b))); }
  static Reg Odd(Reg a, Reg b) {
    return Ordered(_mm256_packus_epi16(_mm256_srli_epi16(a, 8), _mm256_srli_epi16(b, 8)));
  }
  static Reg ZipLow(Reg a, Reg b) { return _mm256_unpacklo_epi8(Ordered(a), Ordered(b)); }
  static Reg ZipHigh(Reg a, Reg b) { return _mm256_unpackhi_epi8(Ordered(a), Ordered(b)); }
  static Reg EvenOfBoth(Reg a, Reg b) { return _mm256_or_si256(LowBytes(a), _mm256_slli_epi16(b, 8)); }
};

}  // namespace

const PixelRows kPixelRowsAvx2 = SimdRows<Avx2, kPixelRowsSse2>::kRows;

}  // namespace vel
