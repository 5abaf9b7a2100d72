#include "pixel/PixelRows.h"

namespace vel {

PixelRowsChoice AvailablePixelRows() {
  PixelRowsChoice choice{{&kPixelRowsScalar, &kPixelRowsSse2, nullptr}, 2};
  if (__builtin_cpu_supports("avx2") != 0) {
    choice.versions[choice.count++] = &kPixelRowsAvx2;
  }
  return choice;
}

}  // namespace vel
