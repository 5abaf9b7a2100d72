#include "pixel/PixelRows.h"

namespace vel {

PixelRowsChoice AvailablePixelRows() {
  return {{&kPixelRowsScalar, nullptr, nullptr}, 1};
}

}  // namespace vel
