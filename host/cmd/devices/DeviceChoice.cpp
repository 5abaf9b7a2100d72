#include "cmd/devices/DeviceChoice.h"

#include <array>
#include <limits>
#include <optional>
#include <regex>

#include "cmd/console/UsageError.h"

namespace vel {
namespace {

constexpr std::uint8_t kCapturedCameraAddress = 0x80;

constexpr std::array<EmulatedDevice, 7> kEmulated = {{
    {kEmulatedCamera, 0x88, 0xFF00, 0xFFFE, "UVC camera fed by a test picture, a capture device or a file"},
    {"keyboard", 0x82, 0xFF00, 0xFF01, "HID boot keyboard on which nobody types"},
    {"printer", 0x83, 0xFF00, 0xFF02, "bidirectional printer"},
    {"ch340", 0x84, 0xFF00, 0xFF03, "serial adapter, vendor class"},
    {"ch9102", 0x85, 0xFF00, 0xFF04, "serial adapter, CDC ACM"},
    {"raw", 0x86, 0xFF00, 0xFF10, "vendor device, an endpoint pair of each transfer type"},
    {"winusb", 0x87, 0xFF00, 0xFF05, "vendor device with Microsoft OS descriptors"},
}};

std::string EmulatedNames() {
  std::string names;
  for (const EmulatedDevice& device : kEmulated) {
    names += std::string(names.empty() ? "" : ", ") + std::string(device.name);
  }
  return names;
}

}  // namespace

std::span<const EmulatedDevice> EmulatedDevices() {
  return kEmulated;
}

DeviceChoice ParseDevice(const std::string& device, std::string_view cameraSource) {
  for (const EmulatedDevice& emulated : kEmulated) {
    if (emulated.name == device && device == kEmulatedCamera && cameraSource != kTestCamera) {
      return DeviceIdentity{0, kCapturedCameraAddress, emulated.vendorId, emulated.productId,
                            std::string(cameraSource)};
    }
    if (emulated.name == device) {
      return DeviceIdentity{0, emulated.address, emulated.vendorId, emulated.productId, ""};
    }
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
