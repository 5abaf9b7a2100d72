#include "base/HeapReuse.h"

#include <cstddef>
#include <cstdlib>

namespace vel {
namespace {

// The limit becomes twice the size of the block.
constexpr std::size_t kLargeBlock = 8U << 20U;

}  // namespace

void LetHeapKeepFreed() noexcept {
  void* volatile block = std::malloc(kLargeBlock);  // Volatile: a pair that does nothing else would be left out.
  std::free(block);
}

}  // namespace vel
