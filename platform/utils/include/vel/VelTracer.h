#ifndef VEL_TRACER_H
#define VEL_TRACER_H

#include <atomic>
#include <cstdint>

#include "vel/vel_utils_export.h"

namespace vel {

// Gives out the identifiers under which trace events are reported. Any thread.
class VEL_UTILS_EXPORT VelTracer {
 public:
  static VelTracer& GetInstance();

  VelTracer(const VelTracer&) = delete;
  VelTracer& operator=(const VelTracer&) = delete;

  // A span id that no other call in this process returns; never 0. Different processes start at random places.
  std::uint64_t NewSpanId();

 private:
  VelTracer();

  std::atomic<std::uint64_t> mNext;
};

}  // namespace vel

#endif
