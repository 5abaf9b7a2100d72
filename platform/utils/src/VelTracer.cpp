#include "vel/VelTracer.h"

#include <random>

namespace vel {

VelTracer::VelTracer() : mNext((std::uint64_t{std::random_device{}()} << 32U) | 1U) {}

VelTracer& VelTracer::GetInstance() {
  static VelTracer instance;
  return instance;
}

std::uint64_t VelTracer::NewSpanId() {
  std::uint64_t id = 0;
  while (id == 0) {
    id = mNext.fetch_add(1, std::memory_order_relaxed);
  }
  return id;
}

}  // namespace vel
