#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_CDC_CH340_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_CDC_CH340_H

#include <cstdint>

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A vendor-class serial adapter: bulk data, interrupt for the modem lines.
class DummyUsbCdcCH340 final : public DummyUsbFamily {
 public:
  DummyUsbCdcCH340(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
