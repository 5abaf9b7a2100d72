#ifndef VEL_IO_LIBUSB_CONTROL_H
#define VEL_IO_LIBUSB_CONTROL_H

#include <cstdint>

#include "io/LibusbHandle.h"

namespace vel {

struct LibusbControlRequest {
  std::uint8_t bmRequestType;
  std::uint8_t bRequest;
  std::uint16_t wValue;
  std::uint16_t wIndex;
  std::uint16_t wLength;
  std::uint32_t timeout;  // Milliseconds; 0: no limit.
};

// One control transfer. Returns the bytes moved (at most wLength) or a LIBUSB_ERROR_* value; a close of `owner` ends it
// with LIBUSB_ERROR_IO. `data` has room for wLength bytes and is not touched after the return. Called with a LibusbUse
// held, of which `handle` is; not from the thread that handles events.
int LibusbControl(LibusbHandle& owner, libusb_device_handle* handle, const LibusbControlRequest& request,
                  std::uint8_t* data);

}  // namespace vel

#endif
