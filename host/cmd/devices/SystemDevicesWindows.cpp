#include <atomic>

#include "cmd/devices/SystemDevices.h"

namespace vel {
namespace {

std::atomic<bool> gHasUsbDk{false};

}  // namespace

const char* WhyNobodyTellsOfDevices() {
  return "libusb does not tell of devices on Windows";
}

bool IsImported(std::uint8_t /*bus*/) {
  return false;
}

void TakeSystemBackend(libusb_context* context) {
  gHasUsbDk = libusb_set_option(context, LIBUSB_OPTION_USE_USBDK) == LIBUSB_SUCCESS;
}

// UsbDk takes the device away from its driver, as if it were pulled out: no keyboard is to be listed so.
bool OpeningLeavesDevicesAlone() {
  return !gHasUsbDk;
}

std::string WhyNotOpened(int error) {
  switch (error) {
    case LIBUSB_ERROR_NOT_SUPPORTED:
    case LIBUSB_ERROR_NOT_FOUND:
      return "has no driver that lets programs use it: give it WinUSB with Zadig (zadig.akeo.ie), or install UsbDk, "
             "which takes any device";
    case LIBUSB_ERROR_ACCESS:
      return "cannot be opened: another program has it, or Windows keeps it to itself, as keyboards and mice: end that "
             "program, or install UsbDk, which takes any device";
    default:
      return std::string("cannot be opened: ") + libusb_strerror(error);
  }
}

}  // namespace vel
