#ifndef VIRTUSB_TESTS_SUPPORT_FAILING_MEMORY_H
#define VIRTUSB_TESTS_SUPPORT_FAILING_MEMORY_H

#include <cstdint>

// For programs that have FailingMemory.cpp among their sources, and its option among their linker's.
namespace vel::test {

// Lets one in `oneIn` allocations of every thread that was not there before fail: operator new throws, malloc, calloc
// and realloc of what is linked into this program return null. 0 ends it. Returns how many have failed since it was
// last called. One thread, as a rule before others are started.
std::uint32_t FailMemoryOfOthers(std::uint32_t oneIn);

// The same, for the `fail` allocations that come behind the next `succeed`. Returns how many of the former ones did not
// come.
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
