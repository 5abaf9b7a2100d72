#include "pixel/PixelRows.h"

namespace vel {

PixelRowsChoice AvailablePixelRows() {
  PixelRowsChoice choice{{&kPixelRowsScalar, &kPixelRowsSse2}, 2};
  // Both answers include that the system keeps these registers for each thread.
  if (__builtin_cpu_supports("avx2") != 0) {
    choice.versions[choice.count++] = &kPixelRowsAvx2;
    if (__builtin_cpu_supports("avx512vbmi") != 0) {
      choice.versions[choice.count++] = &kPixelRowsAvx512;
    }
  }
  return choice;
}

}  // namespace vel
