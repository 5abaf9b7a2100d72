#include <algorithm>
#include <bit>
#include <thread>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include "vel/Processors.h"

namespace vel {

unsigned UsableProcessors() {
  unsigned processors = std::thread::hardware_concurrency();
  DWORD_PTR process = 0;
  DWORD_PTR machine = 0;
  if (GetProcessAffinityMask(GetCurrentProcess(), &process, &machine) != 0 && process != 0) {
    processors = static_cast<unsigned>(std::popcount(process));  // Zero where it is in several groups of 64.
  }
  return std::max(processors, 1U);
}

}  // namespace vel
