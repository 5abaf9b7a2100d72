#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_CHOICE_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_CHOICE_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "cmd/devices/LocalDevices.h"
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

// What DEVICE on the command line names: an emulated device, or a local one that may or may not be there. The camera
// source is "test", a capture device or anything that FFmpeg reads.
using DeviceChoice = std::variant<DeviceIdentity, LocalSelector>;
// Throws UsageError for a text that names none.
DeviceChoice ParseDevice(const std::string& device, std::string_view cameraSource = kTestCamera);

// The device that DEVICE names. Throws UsageError for a text that names none, and std::runtime_error for a local device
// that is not there.
DeviceIdentity FindDevice(const std::string& device, std::string_view cameraSource = kTestCamera);

}  // namespace vel

#endif
