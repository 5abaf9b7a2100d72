#ifndef VIRTUSB_HOST_CMD_DEVICES_EMULATED_DEVICES_H
#define VIRTUSB_HOST_CMD_DEVICES_EMULATED_DEVICES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "remote/ModuleSession.h"

namespace vel {

// A device that the module emulates.
struct EmulatedDevice {
  std::string_view name;
  std::uint8_t address;  // Above 0x7F, as the module wants it; 0x80 and 0x81 are fed by the capture library.
  std::uint16_t vendorId;
  std::uint16_t productId;
  std::string_view about;
};
std::span<const EmulatedDevice> EmulatedDevices();

inline constexpr std::string_view kEmulatedCamera = "camera";
// What feeds the emulated camera unless a capture device or a file is named.
inline constexpr std::string_view kTestCamera = "test";

// The one of this name; the camera shows `cameraSource`. Nothing when there is none.
std::optional<DeviceIdentity> FindEmulatedDevice(std::string_view name, std::string_view cameraSource);

}  // namespace vel

#endif
