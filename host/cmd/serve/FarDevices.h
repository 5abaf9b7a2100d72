// What attach and export have in common.
#ifndef VIRTUSB_HOST_CMD_SERVE_FAR_DEVICES_H
#define VIRTUSB_HOST_CMD_SERVE_FAR_DEVICES_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cmd/console/CommonOptions.h"
#include "far/FarDevice.h"
#include "observe/Observer.h"

namespace vel {

struct FarOptions {
  std::vector<std::string> devices;
  bool untouched = false;  // A camera's raw pictures stay raw on the way.
};

// Opens what DEVICE names for a guest. Throws as OpenDevice does, and RemoteError when the device does not answer. Once
// `stop` is raised nothing waits for it any more. `onGone` is called once the device is, on any thread, before the
// device's destructor returns. `observer` outlives the device.
std::unique_ptr<FarDevice> OpenFarDevice(const std::string& device, const CommonOptions& common,
                                         const FarOptions& wanted, Observer& observer, const StopSignal& stop,
                                         const std::function<void()>& onGone = nullptr);

// What is said when the last of the devices has gone.
[[noreturn]] void ThrowAllGone(const FarOptions& wanted);

// Puts the devices and how they are taken into a command's options.
void AddFarOptions(CLI::App& command, FarOptions& wanted);

}  // namespace vel

#endif
