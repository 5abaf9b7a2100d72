// Loads the installed module, opens the emulated raw device and asks for its speed. Then uses the module as a library:
// encodes a picture.
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "load.h"
#include "policys/UVCDecoder.h"
#include "policys/UVCFrameManager.h"
#include "protocol/Commands.h"
#include "protocol/VelPacket.h"
#include "vel/VelDeviceBase.h"
#include "vel/VelDriver.h"
#include "vel/VelDrvModule.h"

#if defined(AVCODEC_AVCODEC_H) || defined(AVUTIL_AVUTIL_H)
#error "the package's headers want FFmpeg's"
#endif

namespace {

class RawDevice final : public vel::VelDeviceBase {
 public:
  std::uint8_t GetBusNumber() const override { return 0; }
  std::uint8_t GetDeviceAddress() const override { return 0x86; }
  int IsRedirected() const override { return 1; }
  std::uint32_t GetDevId() const override { return 1; }
  std::uint32_t GetChannelId() const override { return 0; }
  std::uint16_t GetVendorId() const override { return 0xFF00; }
  std::uint16_t GetProductId() const override { return 0xFF10; }
  const char* GetArgs() const override { return ""; }
  std::uint8_t TakeReplyReqId(std::uint16_t, std::uint32_t) override { return 0; }
  void Trace(std::uint64_t, const char*, const vel::VelTraceAttribute*, std::size_t) override {}
  int Send(std::unique_ptr<vel::VelPacket> packet, std::uint32_t) override {
    const std::lock_guard lock(mMutex);
    mReply = std::move(packet);
    mReplied.notify_one();
    return 0;
  }
  std::unique_ptr<vel::VelPacket> AwaitReply() {
    std::unique_lock lock(mMutex);
    mReplied.wait(lock, [this] { return mReply != nullptr; });
    return std::move(mReply);
  }

 private:
  std::mutex mMutex;
  std::condition_variable mReplied;
  std::unique_ptr<vel::VelPacket> mReply;
};

// One grey picture comes out as an access unit in byte stream format.
bool EncodesAPicture() {
  constexpr std::uint16_t kSize = 64;
  constexpr std::uint32_t kBytes = kSize * kSize * 2;
  vel::UVCDecoder unused;
  vel::UVCFrameManager frames(vel::UVC_FRAME_TYPE_YUYV, vel::UVC_FRAME_TYPE_H264);
  if (frames.Init(kSize, kSize, vel::UVC_FRAME_TYPE_YUYV, vel::UVC_FRAME_TYPE_H264, nullptr) != 0) {
    return false;
  }
  vel::HeapBlock picture(static_cast<std::uint8_t*>(std::malloc(kBytes)));
  std::memset(picture.get(), 128, kBytes);
  vel::UVCFramePtr frame = vel::MakeUvcFrame(std::move(picture), kBytes, 1);
  if (frames.EnqueueFrame(frame.get()) == 0) {
    static_cast<void>(frame.release());
  }
  const vel::UVCFramePtr encoded(frames.DequeueFrame(60'000));
  constexpr std::uint8_t kStartCode[] = {0, 0, 0, 1};
  return encoded != nullptr && encoded->length > 4 && std::memcmp(encoded->data, kStartCode, 4) == 0;
}

}  // namespace

int main() {
  const auto* module = static_cast<const vel::VelDrvModule*>(LoadSymbol(MODULE, vel::kDrvModuleSymbol));
  if (module == nullptr) {
    std::fprintf(stderr, "%s cannot be loaded\n", MODULE);
    return 1;
  }
  RawDevice device;
  const std::unique_ptr<vel::VelDriver> driver(module->open(&device));
  auto request = std::make_unique<vel::VelPacket>(vel::VelPacket::kHeaderSize);
  request->InitHeader(7, static_cast<std::uint16_t>(vel::Command::kGetDeviceSpeed), 1);
  driver->onEvent(std::move(request));
  const std::unique_ptr<vel::VelPacket> reply = device.AwaitReply();
  driver->Close(0);
  std::uint32_t speed = 0;
  reply->ReadU32(&speed);
  std::printf("%s: speed %u\n", module->name, speed);
  const bool answered = std::strcmp(module->name, "virtusb-redir") == 0 && speed == 2 && reply->GetReqId() == 7;
  return answered && EncodesAPicture() ? 0 : 1;
}
