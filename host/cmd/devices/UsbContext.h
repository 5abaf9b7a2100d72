// libusb, as the command asks it for this machine's devices.
#ifndef VIRTUSB_HOST_CMD_DEVICES_USB_CONTEXT_H
#define VIRTUSB_HOST_CMD_DEVICES_USB_CONTEXT_H

#include <libusb-1.0/libusb.h>

#include <memory>

#include "remote/ModuleSession.h"

namespace vel {

struct UsbContextDeleter {
  void operator()(libusb_context* context) const { libusb_exit(context); }
};
using UsbContext = std::unique_ptr<libusb_context, UsbContextDeleter>;

// One that sees the devices as the module sees them. Throws std::runtime_error when there can be none.
UsbContext NewUsbContext();

bool IsHub(const libusb_device_descriptor& desc);
DeviceIdentity IdentityOf(libusb_device* device, const libusb_device_descriptor& desc);

}  // namespace vel

#endif
