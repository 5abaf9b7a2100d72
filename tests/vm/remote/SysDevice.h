#ifndef VIRTUSB_TESTS_VM_REMOTE_SYS_DEVICE_H
#define VIRTUSB_TESTS_VM_REMOTE_SYS_DEVICE_H

#include <string>
#include <vector>

namespace vel::vm {

// A device as the kernel shows it under /sys/bus/usb/devices.
class SysDevice {
 public:
  // Throws Failure when it is not there.
  explicit SysDevice(std::string name);

  // BUS:ADDRESS, as the command takes it.
  std::string Place() const;
  // The driver of each interface, in the order of their numbers; "-" where there is none.
  std::vector<std::string> Drivers() const;
  // Waits until the interfaces have these drivers. Throws Failure with `when` after the deadline.
  void AwaitDrivers(const std::vector<std::string>& expected, const std::string& when) const;

 private:
  std::string Read(const std::string& attribute) const;

  const std::string mName;
};

std::string Join(const std::vector<std::string>& words);

}  // namespace vel::vm

#endif
