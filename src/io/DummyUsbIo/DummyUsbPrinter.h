#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_PRINTER_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_PRINTER_H

#include <cstdint>

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A bidirectional printer.
class DummyUsbPrinter final : public DummyUsbFamily {
 public:
  DummyUsbPrinter(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
