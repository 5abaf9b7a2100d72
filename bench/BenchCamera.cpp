#include "BenchCamera.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "io/DummyUsbIo/UvcConfigBuilder.h"
#include "protocol/IsoTable.h"
#include "protocol/VelPacket.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel {
namespace {

constexpr std::uint8_t kEndpoint = 0x81;

std::vector<std::uint8_t> Configuration(int width, int height) {
  const std::array sizes = {
      _CameraParam{static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height), CAM_FORMAT_YUYV, 0}};
  UvcConfigBuilder builder(false);
  builder.CreateConfigHeader();
  builder.CreateCtrlInterface();
  builder.CreateVsInterface(sizes);
  return builder.Take();
}

}  // namespace

// Holds the one transfer that waits for a picture.
class BenchCamera::Io final : public NullUsbIo {
 public:
  explicit Io(BenchCamera& camera) : mCamera(camera) {}
  ~Io() override { Withdraw(); }

  std::uint8_t GetIoType() override { return kIoTypeEmulated; }
  int OpenUsbDev() override { return 0; }
  libusb_config_descriptor* GetConfigDesc() override { return mCamera.mConfig.Get(); }
  int SetInterfaceAltSetting(int, int) override { return 0; }
  int ControlTransfer(std::uint8_t, std::uint8_t, std::uint16_t, std::uint16_t, std::uint8_t*, std::uint16_t wLength,
                      std::uint32_t) override {
    return wLength;
  }
  int CancelOwnTransfers(const UsbIoTransferCallback*) override {
    Withdraw();
    return 1;
  }
  int IsochTransfer(_UsbIoXferInfo* info) override {
    if (info != nullptr) {
      const MutexLock lock(mCamera.mMutex);
      mCamera.mPending = info;
      mCamera.mChanged.NotifyAll();
    }
    return 0;
  }

 private:
  void Withdraw() {
    _UsbIoXferInfo* left = nullptr;
    {
      const MutexLock lock(mCamera.mMutex);
      left = std::exchange(mCamera.mPending, nullptr);
    }
    if (left != nullptr) {
      FailXfer(left, kXferCancelled);
    }
  }

  BenchCamera& mCamera;
};

IUsbIo* BenchCamera::MakeIo(std::uint32_t /*type*/, VelDeviceBase* device) {
  return new Io(*static_cast<BenchCamera*>(device));
}

BenchCamera::BenchCamera(int width, int height, bool transcode, std::function<void(std::size_t)> onReply)
    : FakeDeviceBase({.productId = 0xFFFE}),
      mOnReply(std::move(onReply)),
      mConfig(Configuration(width, height)),
      mDevice(this, &BenchCamera::MakeIo) {
  mDevice.Init();
  if (transcode) {
    mDevice.SetRedirPolicy("");
  }
  mDevice.OpenUsbDev();
  UVCStreamCtrl ctrl{};
  ctrl.bFormatIndex = 1;
  ctrl.bFrameIndex = 1;
  ctrl.dwMaxVideoFrameSize = static_cast<std::uint32_t>(width * height * 2);
  std::array<std::uint8_t, 34> block{};
  std::memcpy(block.data(), &ctrl, block.size());
  mDevice.ControlTransfer(0x21, 0x01, 0x0200, 1, block.data(), block.size(), 0);
  mDevice.SetInterfaceAltSetting(1, 1);
}

BenchCamera::~BenchCamera() {
  mDevice.SetInterfaceAltSetting(1, 0);
}

void BenchCamera::Read() {
  constexpr std::uint32_t kLength = sizeof(IsoPacketRecord) + 1;
  auto* context = static_cast<TransferContext*>(std::calloc(1, sizeof(TransferContext)));
  context->deviceBase = this;
  mDevice.IsoTransfer(kEndpoint, ++mStreamId, 1, kLength, static_cast<std::uint8_t*>(std::calloc(1, kLength)), context);
}

void BenchCamera::Picture(std::span<const std::uint8_t> picture) {
  _UsbIoXferInfo* info = nullptr;
  {
    MutexLock lock(mMutex);
    while (mPending == nullptr) {
      mChanged.Wait(lock);
    }
    info = std::exchange(mPending, nullptr);
  }
  std::memcpy(info->data, picture.data(), picture.size());
  info->length = static_cast<std::uint32_t>(picture.size());
  CompleteXfer(info);
}

int BenchCamera::Send(std::unique_ptr<VelPacket> packet, std::uint32_t /*waitMs*/) {
  mOnReply(packet->PayloadBytes().size());
  return 0;
}

}  // namespace vel
