// What the module exports.
#ifndef VEL_ENTRY_H
#define VEL_ENTRY_H

#include "base/ModuleExport.h"
#include "vel/VelDrvModule.h"

extern "C" {

// Read by the framework under this name; writable, as its binary interface has it.
extern VEL_MODULE_EXPORT vel::VelDrvModule VEL_DRV_MODULE;

// A new driver for the device, owned by the caller and deleted through its destructor; null when the device cannot be
// redirected, or for want of memory or a thread. `deviceBase` outlives the driver and every session of it. Any thread.
VEL_MODULE_EXPORT vel::VelDriver* virtusb_open(vel::VelDeviceBase* deviceBase) noexcept;

}  // extern "C"

#endif
