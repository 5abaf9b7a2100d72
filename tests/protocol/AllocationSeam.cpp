#include "AllocationSeam.h"

#include <cstddef>

namespace {

thread_local bool gMallocFails = false;
thread_local bool gReallocFails = false;

}  // namespace

// The linker sends every malloc and realloc of this binary here, and the true ones to __real_.
extern "C" {

void* __real_malloc(std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void* __wrap_malloc(std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  return gMallocFails ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, std::size_t size) {
  return gReallocFails ? nullptr : __real_realloc(block, size);
}

}  // extern "C"

namespace vel::test {

FailingMalloc::FailingMalloc() {
  gMallocFails = true;
}
FailingMalloc::~FailingMalloc() {
  gMallocFails = false;
}
FailingRealloc::FailingRealloc() {
  gReallocFails = true;
}
FailingRealloc::~FailingRealloc() {
  gReallocFails = false;
}

}  // namespace vel::test
