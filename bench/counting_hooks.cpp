// Stands in front of the C library's allocation and copying, in this program and in every library that it loads.
#include "counting_hooks.h"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<bool> gCounting{false};
std::atomic<std::uint64_t> gAllocations{0};
std::atomic<std::uint64_t> gBytesCopied{0};

void CountAllocation() {
  if (gCounting.load(std::memory_order_relaxed)) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
  }
}

void CountCopy(std::size_t bytes) {
  constexpr std::size_t kFieldSized = 32;
  if (bytes >= kFieldSized && gCounting.load(std::memory_order_relaxed)) {
    gBytesCopied.fetch_add(bytes, std::memory_order_relaxed);
  }
}

}  // namespace

void StartCounting() {
  gAllocations = 0;
  gBytesCopied = 0;
  gCounting = true;
}

Counts StopCounting() {
  gCounting = false;
  return {gAllocations, gBytesCopied};
}

extern "C" {

// glibc's own names for what is replaced here.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
  CountAllocation();
  return __libc_malloc(size);
}

__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
  CountAllocation();
  return __libc_calloc(count, size);
}

__attribute__((visibility("default"))) void* realloc(void* block, std::size_t size) {
  CountAllocation();
  return __libc_realloc(block, size);
}

__attribute__((visibility("default"))) void* memcpy(void* to, const void* from, std::size_t bytes) {
  CountCopy(bytes);
  auto* out = static_cast<volatile unsigned char*>(to);
  const auto* in = static_cast<const unsigned char*>(from);
  for (std::size_t i = 0; i < bytes; ++i) {
    out[i] = in[i];
  }
  return to;
}

__attribute__((visibility("default"))) void* memmove(void* to, const void* from, std::size_t bytes) {
  CountCopy(bytes);
  auto* out = static_cast<volatile unsigned char*>(to);
  const auto* in = static_cast<const unsigned char*>(from);
  if (to < from) {
    for (std::size_t i = 0; i < bytes; ++i) {
      out[i] = in[i];
    }
  } else {
    for (std::size_t i = bytes; i > 0; --i) {
      out[i - 1] = in[i - 1];
    }
  }
  return to;
}

}  // extern "C"
