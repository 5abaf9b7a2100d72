#include "cmd/devices/DevicePlace.h"

#include <algorithm>

#include "cmd/console/Format.h"

namespace vel {

std::string Place(const DeviceIdentity& identity) {
  return std::to_string(identity.bus) + ":" + std::to_string(identity.address);
}

std::string Describe(const DeviceIdentity& identity) {
  return Format("bus %03u address %03u, %04x:%04x", unsigned{identity.bus}, unsigned{identity.address},
                unsigned{identity.vendorId}, unsigned{identity.productId});
}

bool AreSamePlace(const DeviceIdentity& one, const DeviceIdentity& other) {
  return one.bus == other.bus && one.address == other.address;
}

bool Contains(const std::vector<DeviceIdentity>& devices, const DeviceIdentity& device) {
  return std::ranges::any_of(devices, [&](const DeviceIdentity& each) { return AreSamePlace(each, device); });
}

}  // namespace vel
