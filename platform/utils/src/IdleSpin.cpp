#include "IdleSpin.h"

#include <fstream>

namespace vel {

unsigned UsableProcessors() {
  const unsigned processors = std::thread::hardware_concurrency();
  // Linux: microseconds of processor time in a period, and the period; "max" without a limit. Elsewhere there is no
  // such file.
  std::ifstream limit("/sys/fs/cgroup/cpu.max");
  unsigned share = 0;
  unsigned period = 0;
  if (limit >> share >> period && period > 0) {
    return std::min(processors, share / period);
  }
  return processors;
}

}  // namespace vel
