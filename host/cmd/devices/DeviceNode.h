#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_NODE_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_NODE_H

#include <optional>
#include <string>

#include "remote/FdStream.h"
#include "remote/ModuleSession.h"

namespace vel {

// A local device's node below /dev/bus/usb, opened: locked against other redirections, and asked what the kernel makes
// of the device's interfaces (usbfs). One thread.
class DeviceNode {
 public:
  static constexpr unsigned kMaxInterfaces = 32;  // USB devices have no more; usbfs takes no higher numbers.

  // Locks it until it is closed. Throws std::runtime_error, with a text that says what to do, when the node cannot be
  // opened or another process has locked it.
  explicit DeviceNode(const DeviceIdentity& identity);

  // Name of the driver that has the interface, "usbfs" for a program; empty for none.
  std::string Driver(unsigned interface) const;
  // Lets the kernel look for a driver. 0, or an errno; 0 also without a fitting driver, or such an interface.
  int Attach(unsigned interface) const;
  // Takes the kernel's driver away.
  void Detach(unsigned interface) const;
  // 0, or an errno.
  int SetConfiguration(int value) const;
  // "process N (NAME)" for another process that has the device open, as far as this user may see it.
  std::optional<std::string> OtherUser() const;

 private:
  std::string mPath;
  UniqueFd mFd;
};

}  // namespace vel

#endif
