#include "soak/FailingMemory.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace vel::test {
namespace {

std::atomic<std::uint32_t> gOneIn{0};
std::atomic<std::uint32_t> gFailed{0};
std::atomic<std::uint32_t> gCount{0};
thread_local int tHealthy = 0;

bool Fails() {
  const std::uint32_t oneIn = gOneIn.load(std::memory_order_relaxed);
  if (oneIn == 0 || tHealthy > 0 || gCount.fetch_add(1, std::memory_order_relaxed) % oneIn != oneIn - 1) {
    return false;
  }
  gFailed.fetch_add(1, std::memory_order_relaxed);
  return true;
}

}  // namespace

std::uint32_t FailMemoryOfOthers(std::uint32_t oneIn) {
  tHealthy = 1;
  gOneIn = oneIn;
  return gFailed.exchange(0);
}

HealthyMemory::HealthyMemory() {
  ++tHealthy;
}
HealthyMemory::~HealthyMemory() {
  --tHealthy;
}

}  // namespace vel::test

// The linker sends this program's own calls here, and the true ones to __real_.
extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);

void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);

void* __wrap_malloc(std::size_t size) {
  return vel::test::Fails() ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return vel::test::Fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* block, std::size_t size) {
  return vel::test::Fails() ? nullptr : __real_realloc(block, size);
}

}  // extern "C"

void* operator new(std::size_t size) {
  void* const block = vel::test::Fails() ? nullptr : __real_malloc(size == 0 ? 1 : size);
  return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}
