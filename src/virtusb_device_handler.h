#ifndef VEL_VIRTUSB_DEVICE_HANDLER_H
#define VEL_VIRTUSB_DEVICE_HANDLER_H

#include <memory>
#include <utility>

#include "virt_udevice.h"

namespace vel {

// The handlers' hold on an emulated device: the log tells when the last session that served it let go.
class DeviceHandlerAA {
 public:
  explicit DeviceHandlerAA(std::shared_ptr<VirtUDevice> device) : mDevice(std::move(device)) {}
  DeviceHandlerAA(const DeviceHandlerAA&) = delete;
  DeviceHandlerAA& operator=(const DeviceHandlerAA&) = delete;
  ~DeviceHandlerAA();

 private:
  const std::shared_ptr<VirtUDevice> mDevice;
};

}  // namespace vel

#endif
