#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_UTILS_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_UTILS_H

#include <cstdint>
#include <memory>
#include <span>

#include <libusb-1.0/libusb.h>

#include "base/HeapBlock.h"

namespace vel {

// Building blocks that the emulated devices share. Without state; any thread.
class DummyUsbUtils {
 protected:
  using EndpointPtr = std::unique_ptr<libusb_endpoint_descriptor, FreeDeleter>;

  // A new endpoint record without extra bytes, to be copied where it belongs; null without memory.
  static EndpointPtr CreateEndpiontDesc(std::uint8_t address, std::uint8_t attributes, std::uint16_t maxPacketSize,
                                        std::uint8_t interval);

  // Clears the record and fills in what an interface descriptor says.
  static void FillInterfaceDesc(libusb_interface_descriptor& record, std::uint8_t interfaceNumber,
                                std::uint8_t alternateSetting, std::uint8_t numEndpoints, std::uint8_t interfaceClass,
                                std::uint8_t subclass, std::uint8_t protocol, std::uint8_t iInterface);

  // A device descriptor from its 18 bytes.
  static libusb_device_descriptor ReadDeviceDesc(std::span<const std::uint8_t, LIBUSB_DT_DEVICE_SIZE> bytes);

  // Copies as much of the answer as the caller's buffer takes. Returns that count.
  static int CopyAnswer(std::span<const std::uint8_t> answer, std::uint8_t* buffer, int length);

  // What the data endpoints deliver: byte i is 255 - (i mod 255).
  static void FillPattern(std::span<std::uint8_t> bytes);
};

}  // namespace vel

#endif
