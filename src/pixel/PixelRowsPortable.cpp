#include "pixel/PixelRows.h"

namespace vel {

PixelRowsChoice AvailablePixelRows() {
  return {{&kPixelRowsScalar}, 1};
}

}  // namespace vel
