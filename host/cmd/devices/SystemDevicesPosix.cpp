#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "cmd/devices/SystemDevices.h"
#include "cmd/devices/UdevRule.h"

namespace vel {

const char* WhyNobodyTellsOfDevices() {
  return access("/run/udev/control", F_OK) == 0 ? nullptr : "no udevd runs on this machine";
}

bool IsImported(std::uint8_t bus) {
  std::error_code none;  // Then it is not.
  return std::filesystem::read_symlink("/sys/bus/usb/devices/usb" + std::to_string(bus), none)
             .native()
             .find("/vhci_hcd") != std::string::npos;
}

void TakeSystemBackend(libusb_context* /*context*/) {}  // There is one.

bool OpeningLeavesDevicesAlone() {
  return true;
}

std::string WhyNotOpened(int error) {
  return error == LIBUSB_ERROR_ACCESS ? "may not be opened by this user: install " + UdevRulePath() +
                                            " into /etc/udev/rules.d and plug it in again"
                                      : std::string("cannot be opened: ") + libusb_strerror(error);
}

}  // namespace vel
