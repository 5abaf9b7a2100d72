#include "cmd/devices/DeviceChoice.h"

#include <limits>
#include <optional>
#include <regex>
#include <stdexcept>

#include "cmd/console/UsageError.h"

namespace vel {
namespace {

std::string EmulatedNames() {
  std::string names;
  for (const EmulatedDevice& device : EmulatedDevices()) {
    names += std::string(names.empty() ? "" : ", ") + std::string(device.name);
  }
  return names;
}

}  // namespace

DeviceChoice ParseDevice(const std::string& device, std::string_view cameraSource) {
  if (const auto emulated = FindEmulatedDevice(device, cameraSource)) {
    return *emulated;
  }
  std::smatch match;
  if (std::regex_match(device, match, std::regex("([0-9a-fA-F]{4}):([0-9a-fA-F]{4})"))) {
    LocalSelector selector;
    selector.vendorId = static_cast<std::uint16_t>(std::stoul(match[1], nullptr, 16));
    selector.productId = static_cast<std::uint16_t>(std::stoul(match[2], nullptr, 16));
    return selector;
  }
  if (std::regex_match(device, match, std::regex("([0-9]{1,3}):([0-9]{1,3})"))) {
    const unsigned long bus = std::stoul(match[1]);
    const unsigned long address = std::stoul(match[2]);
    constexpr unsigned long kMax = std::numeric_limits<std::uint8_t>::max();
    if (bus <= kMax && address <= kMax) {
      LocalSelector selector;
      selector.bus = static_cast<std::uint8_t>(bus);
      selector.address = static_cast<std::uint8_t>(address);
      return selector;
    }
  }
  throw UsageError("unknown device \"" + device + "\": give one of " + EmulatedNames() +
                   ", or BUS:ADDRESS in decimal, or VID:PID as two times four hex digits; all but serve also take "
                   "tcp://HOST:PORT and exec:COMMAND");
}

DeviceIdentity FindDevice(const std::string& device, std::string_view cameraSource) {
  const DeviceChoice choice = ParseDevice(device, cameraSource);
  if (const auto* emulated = std::get_if<DeviceIdentity>(&choice)) {
    return *emulated;
  }
  if (const auto found = FindLocalDevice(std::get<LocalSelector>(choice))) {
    return *found;
  }
  throw std::runtime_error("no device " + device + " is plugged in (\"virtusb list\" shows what is there)");
}

}  // namespace vel
