// Compiled for AVX-512 with byte permutes.
#include <immintrin.h>

#include "pixel/PixelRowsSimd.h"

namespace vel {
namespace {

// 0, 2, 4 ... 126: which bytes of two registers are even.
struct EvenBytes {
  alignas(64) std::uint8_t at[64]{};
  constexpr EvenBytes() {
    for (std::uint8_t i = 0; i < 64; ++i) {
      at[i] = static_cast<std::uint8_t>(2 * i);
    }
  }
};
constexpr EvenBytes kEvenBytes;

struct Avx512 {
  using Byte = std::uint8_t;
  using Reg = __m512i;
  static constexpr char kName[] = "Avx512";
  static constexpr std::size_t kBytes = sizeof(Reg);

  static Reg Load(const Byte* from) { return _mm512_loadu_si512(from); }
  static void Store(Byte* to, Reg bytes) { _mm512_storeu_si512(to, bytes); }
  static void Stream(Byte* to, Reg bytes) { _mm512_stream_si512(reinterpret_cast<Reg*>(to), bytes); }
  static void Fence() { _mm_sfence(); }
  static Reg Even(Reg a, Reg b) { return _mm512_permutex2var_epi8(a, Load(kEvenBytes.at), b); }
  static Reg Odd(Reg a, Reg b) {
    return _mm512_permutex2var_epi8(a, _mm512_or_si512(Load(kEvenBytes.at), _mm512_set1_epi8(1)), b);
  }
  // Puts the quarters in the order in which an unpack, which works on each 128 bits by itself, takes them.
  static Reg Ordered(Reg bytes) { return _mm512_permutexvar_epi64(_mm512_set_epi64(7, 3, 6, 2, 5, 1, 4, 0), bytes); }
  static Reg ZipLow(Reg a, Reg b) { return _mm512_unpacklo_epi8(Ordered(a), Ordered(b)); }
  static Reg ZipHigh(Reg a, Reg b) { return _mm512_unpackhi_epi8(Ordered(a), Ordered(b)); }
  static Reg EvenOfBoth(Reg a, Reg b) { return _mm512_mask_blend_epi8(0xAAAAAAAAAAAAAAAA, a, _mm512_slli_epi16(b, 8)); }
};

}  // namespace

const PixelRows kPixelRowsAvx512 = SimdRows<Avx512, kPixelRowsAvx2>::kRows;

}  // namespace vel
