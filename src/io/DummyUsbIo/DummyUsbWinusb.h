#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_WINUSB_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_WINUSB_H

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A vendor device that asks a Windows guest for its generic driver by Microsoft OS 1.0 descriptors.
// Its first endpoint pair has 1024-byte interrupt packets on a full-speed device, and every endpoint says bInterval 0,
// as meant.
class DummyUsbWinusb final : public DummyUsbFamily {
 public:
  DummyUsbWinusb(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
