#include <sched.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "vel/Processors.h"

namespace vel {

unsigned UsableProcessors() {
  unsigned processors = std::thread::hardware_concurrency();  // Of the machine, whatever the thread is bound to.
  cpu_set_t bound;
  if (sched_getaffinity(0, sizeof bound, &bound) == 0) {  // Fails where the machine has more than the set holds.
    processors = static_cast<unsigned>(CPU_COUNT(&bound));
  }
  // Microseconds of processor time in a period, and the period; "max" without a limit.
  std::ifstream limit("/sys/fs/cgroup/cpu.max");
  unsigned share = 0;
  unsigned period = 0;
  if (limit >> share >> period && period > 0) {
    processors = std::min(processors, share / period);
  }
  return std::max(processors, 1U);
}

}  // namespace vel
