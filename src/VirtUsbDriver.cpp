#include "VirtUsbDriver.h"

#include <new>
#include <utility>

#include "base/VelLog.h"
#include "protocol/VelPacket.h"

namespace vel {
namespace {

// Null without memory.
std::shared_ptr<VirtUDevice> MakeDevice(VelDeviceBase* deviceBase, VirtUDevice::IoFactory factory) {
  try {
    return std::make_shared<VirtUDevice>(deviceBase, factory);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // namespace

VirtUsbDriver::VirtUsbDriver(VelDeviceBase* deviceBase, VirtUDevice::IoFactory factory)
    : mDeviceBase(deviceBase), mDevice(MakeDevice(deviceBase, factory)) {
  if (mDevice == nullptr) {
    VEL_DEVICE_ERROR(mDeviceBase, "new driver dev is NULL\n");
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "virtusb driver construct\n");
}

VirtUsbDriver::~VirtUsbDriver() {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
}

int VirtUsbDriver::Init() {
  VEL_DEVICE_DEBUG(mDeviceBase, " enter");
  if (mDeviceBase == nullptr || mDevice == nullptr) {
    VEL_DEVICE_ERROR(mDeviceBase, "new driver dev is NULL\n");
    return -1;
  }
  mDevice->Init();
  auto session = std::make_shared<VirtUsb>(mDeviceBase, mDevice);
  if (!session->IsRunning()) {
    VEL_DEVICE_ERROR(mDeviceBase, "no thread for a session");
    return -1;
  }
  mSession = std::move(session);
  return 0;
}

int VirtUsbDriver::onEvent(std::unique_ptr<VelPacket> packet) noexcept {
  if (packet == nullptr) {
    return 0;
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "getPacket devId=%u,reqID=%u \n", packet->GetDevId(), unsigned{packet->GetReqId()});
  if (mSession != nullptr) {
    mSession->EventHandler(std::move(packet));
  }
  return 0;
}

int VirtUsbDriver::Close(std::uint8_t /*reason*/) noexcept {
  VEL_DEVICE_DEBUG(mDeviceBase, "virtusb close \n");
  if (mSession != nullptr) {
    mSession->Stop();
  }
  return 0;
}

int VirtUsbDriver::OnPolicyChange(std::uint64_t /*setting*/, std::uint64_t /*value*/) {
  VEL_DEVICE_DEBUG(mDeviceBase, "unimplement");
  return 0;
}

int VirtUsbDriver::OnEvent(std::uint8_t /*code*/, std::uint64_t /*first*/, std::uint64_t /*second*/) {
  VEL_DEVICE_DEBUG(mDeviceBase, "unimplement");
  return 0;
}

}  // namespace vel
