#ifndef VIRTUSB_TESTS_SUPPORT_FAILING_MEMORY_H
#define VIRTUSB_TESTS_SUPPORT_FAILING_MEMORY_H

#include <cstdint>

// For programs that have FailingMemory.cpp among their sources, and its option among their linker's.
namespace vel::test {

// Lets the `fail` allocations that come behind the next `succeed` of all threads but this one fail: operator new
// throws, malloc, calloc and realloc of what is linked into this program return null. Returns how many of the former
// ones did not come. One thread, as a rule before others are started.
std::uint32_t FailMemoryOfOthersAfter(std::uint32_t succeed, std::uint32_t fail);

// Lets the `nth` allocation of this thread from now on fail, and no other; none for 0.
void FailMyMemory(std::uint32_t nth);

// As long as it lives, this thread's allocations work.
class HealthyMemory {
 public:
  HealthyMemory();
  ~HealthyMemory();
  HealthyMemory(const HealthyMemory&) = delete;
  HealthyMemory& operator=(const HealthyMemory&) = delete;
};

}  // namespace vel::test

#endif
