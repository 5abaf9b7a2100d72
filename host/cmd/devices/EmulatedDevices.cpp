#include "cmd/devices/EmulatedDevices.h"

#include <algorithm>
#include <array>
#include <string>

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

}  // namespace

std::span<const EmulatedDevice> EmulatedDevices() {
  return kEmulated;
}

std::optional<DeviceIdentity> FindEmulatedDevice(std::string_view name, std::string_view cameraSource) {
  const auto* const found = std::ranges::find(kEmulated, name, &EmulatedDevice::name);
  if (found == kEmulated.end()) {
    return std::nullopt;
  }
  const bool captured = name == kEmulatedCamera && cameraSource != kTestCamera;
  return DeviceIdentity{0, captured ? kCapturedCameraAddress : found->address, found->vendorId, found->productId,
                        captured ? std::string(cameraSource) : std::string()};
}

}  // namespace vel
