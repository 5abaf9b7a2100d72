#ifndef VIRTUSB_TESTS_WINDOWS_SUPPORT_HEAP_H
#define VIRTUSB_TESTS_WINDOWS_SUPPORT_HEAP_H

#include <malloc.h>

#include <cstddef>

namespace vel::test {

// Stands in for the one of other systems: nothing fills memory here.
inline void FillFreshMemory(bool /*fill*/) {}
inline std::size_t HeapRoom() {
  return 0;  // Not known.
}
// What is allocated.
inline std::size_t HeapBytes() {
  std::size_t bytes = 0;
  for (_HEAPINFO block{}; _heapwalk(&block) == _HEAPOK;) {
    bytes += block._useflag == _USEDENTRY ? block._size : 0;
  }
  return bytes;
}

}  // namespace vel::test

#endif
