#include "IdleSpin.h"

#include <cstdio>
#include <memory>

namespace vel {

unsigned UsableProcessors() {
  const unsigned processors = std::thread::hardware_concurrency();
  // Linux: microseconds of processor time in a period, and the period; "max" without a limit. Elsewhere there is no
  // such file.
  struct Closer {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  const std::unique_ptr<std::FILE, Closer> limit(std::fopen("/sys/fs/cgroup/cpu.max", "r"));
  unsigned share = 0;
  unsigned period = 0;
  if (limit != nullptr && std::fscanf(limit.get(), "%u %u", &share, &period) == 2 && period > 0) {
    return std::min(processors, share / period);
  }
  return processors;
}

}  // namespace vel
