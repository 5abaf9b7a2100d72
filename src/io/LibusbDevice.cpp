#include "io/LibusbDevice.h"

namespace vel {

bool LibusbDevice::Find(std::span<libusb_device* const> list, std::uint8_t bus, std::uint8_t address) {
  for (libusb_device* const device : list) {
    if (libusb_get_bus_number(device) == bus && libusb_get_device_address(device) == address) {
      mDevice.reset(libusb_ref_device(device));
      return true;
    }
  }
  return false;
}

int LibusbDevice::ReadDescriptor(libusb_device_descriptor** descriptor) {
  const int result = libusb_get_device_descriptor(mDevice.get(), &mDescriptor);
  *descriptor = result < 0 ? nullptr : &mDescriptor;
  return result;
}

int LibusbDevice::ReadConfig(libusb_config_descriptor** config) {
  *config = nullptr;
  libusb_config_descriptor* read = nullptr;
  int result = libusb_get_active_config_descriptor(mDevice.get(), &read);
  if (result == LIBUSB_ERROR_NOT_FOUND) {
    result = libusb_get_config_descriptor(mDevice.get(), 0, &read);
  }
  if (result < 0) {
    return result;
  }
  *config = mConfigs.Keep(LibusbConfigPtr(read));
  return *config == nullptr ? LIBUSB_ERROR_NO_MEM : result;
}

LibusbInterfaces LibusbDevice::ReadInterfaces() const {
  LibusbInterfaces interfaces;
  libusb_config_descriptor* active = nullptr;
  const int result = libusb_get_active_config_descriptor(mDevice.get(), &active);
  if (result < 0) {
    interfaces.result = result == LIBUSB_ERROR_NOT_FOUND ? LIBUSB_SUCCESS : result;
    return interfaces;
  }
  const LibusbConfigPtr config(active);
  for (const libusb_interface& item : std::span(config->interface, config->bNumInterfaces)) {
    if (item.num_altsetting > 0) {
      interfaces.numbers[interfaces.count++] = item.altsetting->bInterfaceNumber;
    }
  }
  return interfaces;
}

LibusbEndpoints LibusbDevice::ReadEndpoints(int interfaceNumber) const {
  LibusbEndpoints endpoints;
  libusb_config_descriptor* active = nullptr;
  if (libusb_get_active_config_descriptor(mDevice.get(), &active) < 0) {
    return endpoints;
  }
  const LibusbConfigPtr config(active);
  for (const libusb_interface& item : std::span(config->interface, config->bNumInterfaces)) {
    for (const libusb_interface_descriptor& setting :
         std::span(item.altsetting, static_cast<std::size_t>(item.num_altsetting))) {
      if (setting.bInterfaceNumber == interfaceNumber) {
        for (const auto& endpoint : std::span(setting.endpoint, setting.bNumEndpoints)) {
          endpoints.set(endpoint.bEndpointAddress);
        }
      }
    }
  }
  return endpoints;
}

}  // namespace vel
