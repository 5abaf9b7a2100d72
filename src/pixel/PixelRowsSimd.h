// The rows of wide registers, written once for every width. Included only by the files that are compiled for an
// instruction set. Nothing of the standard library is instantiated here: the linker might keep such a file's version of
// an inline function for the whole program.
#ifndef VEL_PIXEL_PIXEL_ROWS_SIMD_H
#define VEL_PIXEL_PIXEL_ROWS_SIMD_H

#include "pixel/PixelRows.h"

namespace vel {

// `V` is a register of V::kBytes bytes, a type of the including file's own, so that every file has functions of its
// own:
//   kName; Load, Store, Stream (past the caches, aligned), Fence (orders what was streamed);
//   Even(a, b), Odd(a, b)  the even or the odd bytes of a, then those of b;
//   ZipLow(a, b), ZipHigh(a, b)  a0 b0 a1 b1 ... of the lower and of the upper half;
//   EvenOfBoth(a, b)  a0 b0 a2 b2 ...
// `Rest` handles the pixels behind the last whole register.
template <class V, const PixelRows& Rest>
struct SimdRows {
  using Byte = std::uint8_t;
  using Reg = typename V::Reg;
  static constexpr std::size_t kBytes = V::kBytes;
  static constexpr std::size_t kLineBytes = 64;  // Of a cache.
  // Whole lines of chroma: one that is written in parts, with others between, may leave in parts.
  static constexpr std::size_t kRegsInStep = 2 * kLineBytes / kBytes;
  // The processor's own fetching stops at the end of each page. Measured: 2 to 4 KiB serve alike; into the first cache
  // less well, and past the caches far worse than without.
  static constexpr std::size_t kAheadBytes = 3072;

  static bool IsAligned(const Byte* row) { return reinterpret_cast<std::uintptr_t>(row) % kBytes == 0; }

  template <bool kStream>
  static void Put(Byte* to, Reg bytes) {
    if constexpr (kStream) {
      V::Stream(to, bytes);
    } else {
      V::Store(to, bytes);
    }
  }

  // Begins to fetch `kCount` bytes into the second cache. That cannot fault, so they may lie behind the picture.
  template <std::size_t kCount>
  static void FetchAhead(const Byte* from) {
    for (std::size_t i = 0; i < kCount; i += kLineBytes) {
      __builtin_prefetch(from + kAheadBytes + i, 0, 2);
    }
  }

  // From pixel `x` on, `kRegs` registers of luma in a step.
  template <std::size_t kRegs, bool kStream>
  static std::size_t LumaPart(const Byte* packed, Byte* y, std::size_t x, std::size_t pixels) {
    for (; x + kRegs * kBytes <= pixels; x += kRegs * kBytes) {
      if constexpr (kStream) {
        FetchAhead<2 * kRegs * kBytes>(packed + 2 * x);
      }
      for (std::size_t i = 0; i < kRegs; ++i) {
        const Byte* from = packed + 2 * (x + i * kBytes);
        Put<kStream>(y + x + i * kBytes, V::Even(V::Load(from), V::Load(from + kBytes)));
      }
    }
    return x;
  }

  template <std::size_t kRegs, bool kStream>
  static std::size_t PlanarPart(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t x, std::size_t pixels) {
    for (; x + kRegs * kBytes <= pixels; x += kRegs * kBytes) {
      if constexpr (kStream) {
        FetchAhead<2 * kRegs * kBytes>(packed + 2 * x);
      }
      Reg uv[kRegs];
      for (std::size_t i = 0; i < kRegs; ++i) {
        const Byte* from = packed + 2 * (x + i * kBytes);
        const Reg a = V::Load(from);
        const Reg b = V::Load(from + kBytes);
        Put<kStream>(y + x + i * kBytes, V::Even(a, b));
        uv[i] = V::Odd(a, b);
      }
      for (std::size_t i = 0; i < kRegs; i += 2) {
        Put<kStream>(u + (x + i * kBytes) / 2, V::Even(uv[i], uv[i + 1]));
      }
      for (std::size_t i = 0; i < kRegs; i += 2) {
        Put<kStream>(v + (x + i * kBytes) / 2, V::Odd(uv[i], uv[i + 1]));
      }
    }
    return x;
  }

  static void Luma(const Byte* packed, Byte* y, std::size_t pixels) {
    std::size_t x = 0;
    if (pixels >= kStreamFromPixels && IsAligned(y)) {
      x = LumaPart<kRegsInStep, true>(packed, y, x, pixels);
    }
    x = LumaPart<2, false>(packed, y, x, pixels);
    Rest.luma(packed + 2 * x, y + x, pixels - x);
  }

  static void Planar(const Byte* packed, Byte* y, Byte* u, Byte* v, std::size_t pixels) {
    std::size_t x = 0;
    if (pixels >= kStreamFromPixels && IsAligned(y) && IsAligned(u) && IsAligned(v)) {
      x = PlanarPart<kRegsInStep, true>(packed, y, u, v, x, pixels);
    }
    x = PlanarPart<2, false>(packed, y, u, v, x, pixels);
    Rest.planar(packed + 2 * x, y + x, u + x / 2, v + x / 2, pixels - x);
  }

  static void SemiPlanar(const Byte* packed, Byte* y, Byte* uv, std::size_t pixels) {
    std::size_t x = 0;
    for (; x + kBytes <= pixels; x += kBytes) {
      const Reg a = V::Load(packed + 2 * x);
      const Reg b = V::Load(packed + 2 * x + kBytes);
      V::Store(y + x, V::Even(a, b));
      V::Store(uv + x, V::Odd(a, b));
    }
    Rest.semiPlanar(packed + 2 * x, y + x, uv + x, pixels - x);
  }

  static void StorePacked(Byte* packed, Reg y, Reg uv) {
    V::Store(packed, V::ZipLow(y, uv));
    V::Store(packed + kBytes, V::ZipHigh(y, uv));
  }

  static void Pack(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
    std::size_t x = 0;
    for (; x + 2 * kBytes <= pixels; x += 2 * kBytes) {
      const Reg blue = V::Load(u + x / 2);
      const Reg red = V::Load(v + x / 2);
      StorePacked(packed + 2 * x, V::Load(y + x), V::ZipLow(blue, red));
      StorePacked(packed + 2 * x + 2 * kBytes, V::Load(y + x + kBytes), V::ZipHigh(blue, red));
    }
    Rest.pack(y + x, u + x / 2, v + x / 2, packed + 2 * x, pixels - x);
  }

  static void PackFull(const Byte* y, const Byte* u, const Byte* v, Byte* packed, std::size_t pixels) {
    std::size_t x = 0;
    for (; x + kBytes <= pixels; x += kBytes) {
      StorePacked(packed + 2 * x, V::Load(y + x), V::EvenOfBoth(V::Load(u + x), V::Load(v + x)));
    }
    Rest.packFull(y + x, u + x, v + x, packed + 2 * x, pixels - x);
  }

  static constexpr PixelRows kRows = {V::kName, &Luma, &Planar, &SemiPlanar, &Pack, &PackFull, &V::Fence};
};

}  // namespace vel

#endif
