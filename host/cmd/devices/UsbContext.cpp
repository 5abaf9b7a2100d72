#include "cmd/devices/UsbContext.h"

#include <stdexcept>
#include <string>

#include "cmd/devices/SystemDevices.h"

namespace vel {

UsbContext NewUsbContext() {
  libusb_context* context = nullptr;
  if (const int error = libusb_init(&context); error != 0) {
    throw std::runtime_error(std::string("cannot look for USB devices: ") + libusb_strerror(error));
  }
  TakeSystemBackend(context);
  return UsbContext(context);
}

bool IsHub(const libusb_device_descriptor& desc) {
  return desc.bDeviceClass == LIBUSB_CLASS_HUB;
}

DeviceIdentity IdentityOf(libusb_device* device, const libusb_device_descriptor& desc) {
  return {libusb_get_bus_number(device), libusb_get_device_address(device), desc.idVendor, desc.idProduct, ""};
}

}  // namespace vel
