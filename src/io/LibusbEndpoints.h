#ifndef VEL_IO_LIBUSB_ENDPOINTS_H
#define VEL_IO_LIBUSB_ENDPOINTS_H

#include <bitset>

namespace vel {

// A set of endpoint addresses, the direction bit included.
using LibusbEndpoints = std::bitset<256>;

}  // namespace vel

#endif
