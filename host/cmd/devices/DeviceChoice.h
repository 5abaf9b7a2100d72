#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_CHOICE_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_CHOICE_H

#include <string>
#include <string_view>
#include <variant>

#include "cmd/devices/EmulatedDevices.h"
#include "cmd/devices/LocalDevices.h"
#include "remote/ModuleSession.h"

namespace vel {

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
