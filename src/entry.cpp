#include "entry.h"

#include <exception>
#include <memory>

#include "VirtUsbDriver.h"
#include "base/HeapReuse.h"
#include "base/VelLog.h"

extern "C" {

vel::VelDriver* virtusb_open(vel::VelDeviceBase* deviceBase) noexcept {
  VEL_DEVICE_DEBUG(deviceBase, "enter");
  try {
    VEL_DEVICE_DEBUG(deviceBase, "if enter");
    vel::LetHeapKeepFreed();
    auto driver = std::make_unique<vel::VirtUsbDriver>(deviceBase);
    return driver->Init() == -1 ? nullptr : driver.release();
  } catch (const std::exception& error) {
    VEL_DEVICE_ERROR(deviceBase, "cannot open a driver: %s", error.what());
  } catch (...) {
    VEL_DEVICE_ERROR(deviceBase, "cannot open a driver");
  }
  return nullptr;
}

vel::VelDrvModule VEL_DRV_MODULE = {
    .open = &virtusb_open,
    .reserved8 = nullptr,
    .driverType = vel::VirtUsb::kDriverType,
    .firstMatch = vel::VirtUsb::kMatchesAll,
    .secondMatch = vel::VirtUsb::kMatchesAll,
    .reserved22 = 0,
    .name = "virtusb-redir",
    .version = 1,
    .reserved36 = 0,
    .reserved40 = 0,
};

}  // extern "C"
