#ifndef VIRTUSB_BENCH_COUNTING_HOOKS_H
#define VIRTUSB_BENCH_COUNTING_HOOKS_H

#include <cstdint>

// What every thread of the process did while counting was on.
struct Counts {
  std::uint64_t allocations;
  std::uint64_t bytesCopied;  // By memcpy and memmove calls of at least 32 bytes.
};

void StartCounting();
Counts StopCounting();

#endif
