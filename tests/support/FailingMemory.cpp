#include "support/FailingMemory.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace vel::test {
namespace {

// Failures to come, behind the allocations that still succeed.
std::atomic<std::uint32_t> gToFail{0};
std::atomic<std::int64_t> gToSucceed{0};
thread_local int tHealthy = 0;
thread_local std::uint32_t tUntilFailure = 0;  // 0: none is to come.

// Counts down to 0.
bool Take(std::atomic<std::uint32_t>& left) {
  std::uint32_t value = left.load();
  while (value > 0 && !left.compare_exchange_weak(value, value - 1)) {
  }
  return value > 0;
}

bool Fails() {
  if (tUntilFailure > 0 && --tUntilFailure == 0) {
    return true;
  }
  if (tHealthy > 0) {
    return false;
  }
  return gToFail.load(std::memory_order_relaxed) > 0 && gToSucceed.fetch_sub(1) <= 0 && Take(gToFail);
}

}  // namespace

std::uint32_t FailMemoryOfOthersAfter(std::uint32_t succeed, std::uint32_t fail) {
  tHealthy = 1;
  const std::uint32_t left = gToFail.exchange(0);
  gToSucceed = succeed;
  gToFail = fail;
  return left;
}

void FailMyMemory(std::uint32_t nth) {
  tHealthy = 1;
  tUntilFailure = nth;
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

// Not inline: a compiler that sees into them takes malloc and delete for a pair that does not fit.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const block = vel::test::Fails() ? nullptr : __real_malloc(size == 0 ? 1 : size);
  return block != nullptr ? block : throw std::bad_alloc();
}
// Beside that one, since a sanitizer has its own for whichever is missing.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
  std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t /*size*/) noexcept {
  std::free(block);
}
