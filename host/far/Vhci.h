#ifndef VIRTUSB_HOST_FAR_VHCI_H
#define VIRTUSB_HOST_FAR_VHCI_H

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "remote/FdStream.h"

namespace vel {

// This machine's virtual USB host controller (the kernel's vhci-hcd), by its files in sysfs. One thread.
class Vhci {
 public:
  struct Port {
    unsigned number = 0;
    std::string device;  // As the kernel names what is plugged in, for example 3-1; empty when nothing is.
  };

  // Throws std::runtime_error, with what to do, when there is no controller or this user may not use it.
  explicit Vhci(std::filesystem::path controller = "/sys/devices/platform/vhci_hcd.0");

  // Plugs a device in, at a free port of its speed (enum usb_device_speed of Linux). Returns this side's end of the
  // connection that carries its URBs; closing it unplugs the device. Throws std::runtime_error when no port is free.
  UniqueFd Attach(std::uint32_t speed, unsigned& port) const;

  // Unplugs what is on the port by its connection's end, and waits, a few seconds at most and not once `stop` is
  // raised, until the kernel has let go of it: what it takes back of that device would go to the next one on the port.
  void Unplug(const UniqueFd& connection, unsigned port, const StopSignal& stop,
              const std::filesystem::path& devices = "/sys/bus/usb/devices") const;

  // What is on the port; nothing until the kernel has given it a name.
  std::optional<std::string> DeviceOn(unsigned port) const;

 private:
  std::vector<Port> Ports(bool superSpeed, bool free) const;

  const std::filesystem::path mController;
};

// Waits until every interface of a port's device has a driver, or its configuration is chosen and the kernel has said
// nothing for a second; at most `limit`, or until `stop` is raised. Returns the device's name and its drivers, in their
// interfaces' order ("-" for none), or nothing when it did not come up.
struct BoundDevice {
  std::string name;
  std::vector<std::string> drivers;
};
std::optional<BoundDevice> AwaitDrivers(const Vhci& vhci, unsigned port, std::chrono::milliseconds limit,
                                        const StopSignal& stop,
                                        const std::filesystem::path& devices = "/sys/bus/usb/devices");

}  // namespace vel

#endif
