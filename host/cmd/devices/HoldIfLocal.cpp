#include "cmd/devices/DeviceHold.h"

namespace vel {

std::unique_ptr<DeviceHold> HoldIfLocal(const DeviceIdentity& identity) {
  constexpr std::uint8_t kLastLocalAddress = 0x7F;
  return identity.address > kLastLocalAddress ? nullptr : std::make_unique<DeviceHold>(identity);
}

}  // namespace vel
