#ifndef VIRTUSB_TESTS_SUPPORT_HEAP_H
#define VIRTUSB_TESTS_SUPPORT_HEAP_H

#include <malloc.h>

#include <cstddef>

namespace vel::test {

// From now on memory that nobody wrote is not 0; or may be, again.
inline void FillFreshMemory(bool fill) {
  mallopt(M_PERTURB, fill ? 0x5A : 0);
}
// What the heap has of the system, free or not, without the blocks that are mapped by themselves.
inline std::size_t HeapRoom() {
  return mallinfo2().arena;
}
// What is allocated.
inline std::size_t HeapBytes() {
  return mallinfo2().uordblks;
}

}  // namespace vel::test

#endif
