#ifndef VEL_VIRT_USB_DRIVER_H
#define VEL_VIRT_USB_DRIVER_H

#include <cstdint>
#include <memory>

#include "vel/VelDeviceBase.h"
#include "vel/VelDriver.h"
#include "virt_udevice.h"
#include "virt_usb.h"

namespace vel {

// The driver of one redirected device, owned by the framework, which calls it from one thread at a time.
//
// open (constructor, Init) -> packets (onEvent) -> Close -> destructor.
class VirtUsbDriver final : public VelRawDriver {
 public:
  explicit VirtUsbDriver(VelDeviceBase* deviceBase, VirtUDevice::IoFactory factory = &CreateUsbIo);
  ~VirtUsbDriver() override;

  // Makes the session. Returns 0, or -1 without a device-base object, memory for the device or a thread for the
  // session.
  int Init();

  int onEvent(std::unique_ptr<VelPacket> packet) noexcept override;
  int Activate() override { return 0; }
  int Close(std::uint8_t reason) noexcept override;
  // A further reference to the session, which then outlives this driver; empty before Init.
  std::shared_ptr<DriverObj> GetDriverObj() override { return mSession; }

  // Notifications of the framework that this module does not interpret: a device's policy comes by request.
  virtual int OnPolicyChange(std::uint64_t setting, std::uint64_t value);
  virtual int OnEvent(std::uint8_t code, std::uint64_t first, std::uint64_t second);

 private:
  VelDeviceBase* const mDeviceBase;
  const std::shared_ptr<VirtUDevice> mDevice;  // Null when there was no memory for it.
  std::shared_ptr<VirtUsb> mSession;
};

}  // namespace vel

#endif
