#ifndef VEL_IO_I_VIRT_USB_IO_FACTORY_H
#define VEL_IO_I_VIRT_USB_IO_FACTORY_H

#include <cstdint>

#include "io/IUsbIo.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// A new backend for the device, owned by the caller: emulated for type 1, libusb for type 2; null for any other type.
// `device` outlives it. Any thread.
IUsbIo* CreateUsbIo(std::uint32_t type, VelDeviceBase* device);

}  // namespace vel

#endif
