#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_WINUSB_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_WINUSB_H

#include <cstdint>

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A vendor device that asks a Windows guest for its generic driver by Microsoft OS 1.0 descriptors. Its first endpoint
// pair has 1024-byte interrupt packets on a full-speed device, and every endpoint says bInterval 0: remote
// sides know these bytes.
class DummyUsbWinusb final : public DummyUsbFamily {
 public:
  DummyUsbWinusb(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
