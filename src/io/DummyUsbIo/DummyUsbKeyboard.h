#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_KEYBOARD_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_KEYBOARD_H

#include <cstdint>

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A HID boot keyboard on which nobody types.
class DummyUsbKeyboard final : public DummyUsbFamily {
 public:
  DummyUsbKeyboard(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
