#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_RAW_IO_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_RAW_IO_H

#include <cstdint>

#include "io/DummyUsbIo/DummyUsbFamily.h"

namespace vel {

// A vendor device with an endpoint pair of each transfer type; every endpoint says bInterval 0: remote
// sides know these bytes.
class DummyUsbRawIo final : public DummyUsbFamily {
 public:
  DummyUsbRawIo(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid);
};

}  // namespace vel

#endif
