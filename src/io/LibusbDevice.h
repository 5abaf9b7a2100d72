#ifndef VEL_IO_LIBUSB_DEVICE_H
#define VEL_IO_LIBUSB_DEVICE_H

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>

#include "io/LibusbConfigs.h"
#include "io/LibusbPtr.h"

namespace vel {

// A set of endpoint addresses, the direction bit included.
using LibusbEndpoints = std::bitset<256>;

// Interface numbers, and what reading them gave.
struct LibusbInterfaces {
  int result = LIBUSB_SUCCESS;
  std::size_t count = 0;
  std::array<std::uint8_t, 256> numbers{};

  std::span<const std::uint8_t> All() const { return std::span(numbers).first(count); }
};

// The device of one place on the bus: which it is and what it says of itself, open or not.
class LibusbDevice {
 public:
  // Keeps the first device of `list` at this place; false when there is none.
  bool Find(std::span<libusb_device* const> list, std::uint8_t bus, std::uint8_t address);
  // Null when none was found.
  libusb_device* Get() const { return mDevice.get(); }

  // libusb's result; `*descriptor` is the held one, and null after a failure. Loop thread.
  int ReadDescriptor(libusb_device_descriptor** descriptor);
  // libusb's result; `*config` is the active configuration or, on a device without one, the first. It stays valid as
  // long as this object, and is null after a failure. Loop thread.
  int ReadConfig(libusb_config_descriptor** config);
  // The interfaces of the active configuration; none on a device without one. Any thread.
  LibusbInterfaces ReadInterfaces() const;
  // The endpoints of all settings of one interface of the active configuration; none when that cannot be read. Any
  // thread.
  LibusbEndpoints ReadEndpoints(int interfaceNumber) const;

 private:
  LibusbDevicePtr mDevice;
  libusb_device_descriptor mDescriptor{};
  LibusbConfigs mConfigs;
};

}  // namespace vel

#endif
