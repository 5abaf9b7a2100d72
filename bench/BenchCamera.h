#ifndef VIRTUSB_BENCH_BENCH_CAMERA_H
#define VIRTUSB_BENCH_BENCH_CAMERA_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "io/DummyUsbIo/ConfigDescTree.h"
#include "io/NullUsbIo.h"
#include "support/FakeDeviceBase.h"
#include "vel/Mutex.h"
#include "virt_udevice.h"

namespace vel {

// An emulated camera that is streaming, whose pictures come from the benchmark, and its remote
// side: as thin as both can be, so that what is measured is what is between them.
class BenchCamera : private FakeDeviceBase {
 public:
  // Pixels. `onReply` is called with the reply's size on the thread that sends it.
  BenchCamera(int width, int height, bool transcode, std::function<void(std::size_t)> onReply);
  ~BenchCamera() override;

  void Read();
  // Delivers a picture as a source does, once a transfer waits for one: a copy and the completion.
  void Picture(std::span<const std::uint8_t> picture);

 private:
  class Io;

  static IUsbIo* MakeIo(std::uint32_t type, VelDeviceBase* device);

  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) override;

  const std::function<void(std::size_t)> mOnReply;
  ConfigDescTree mConfig;
  Mutex mMutex;
  CondVar mChanged;
  _UsbIoXferInfo* mPending VEL_GUARDED_BY(mMutex) = nullptr;
  std::uint32_t mStreamId = 0;
  VirtUDevice mDevice;
};

}  // namespace vel

#endif
