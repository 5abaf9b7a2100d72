#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_CDC_CH9102_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_CDC_CH9102_H

#include <cstdint>

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A CDC ACM serial adapter. Its notification endpoint never has anything to say.
class DummyUsbCdcCH9102 final : public DummyUsbFamily {
 public:
  DummyUsbCdcCH9102(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
