#ifndef VEL_BASE_CLOCK_H
#define VEL_BASE_CLOCK_H

#include <chrono>
#include <cstdint>

namespace vel {

// The wall clock in milliseconds since 1970; steps of one. Any thread.
inline std::int64_t WallClockMs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace vel

#endif
