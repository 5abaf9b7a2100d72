// Plain malloc blocks behind an owner.
#ifndef VEL_BASE_HEAP_BLOCK_H
#define VEL_BASE_HEAP_BLOCK_H

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace vel {

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};

// The bytes of a packet, a transfer or a frame.
using HeapBlock = std::unique_ptr<std::uint8_t, FreeDeleter>;

}  // namespace vel

#endif
