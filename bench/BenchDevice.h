#ifndef VIRTUSB_BENCH_BENCH_DEVICE_H
#define VIRTUSB_BENCH_BENCH_DEVICE_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "remote/ModuleLibrary.h"
#include "remote/RequestBuilder.h"
#include "support/FakeDeviceBase.h"
#include "vel/Mutex.h"
#include "vel/VelDriver.h"

namespace vel {

// What a benchmark asks for, again and again.
struct Workload {
  Command command = Command::kBulkTransfer;
  std::uint32_t bytes = 0;  // Of a bulk transfer, at most 1 MiB; not used by a status request.
  std::uint8_t endpoint = 0x81;

  std::unique_ptr<VelPacket> Request(std::uint32_t streamId) const;
};

// The framework's side of a device, as thin as it can be: what is measured is the module.
class BenchDevice final : public FakeDeviceBase {
 public:
  // The emulated raw device where none is named.
  explicit BenchDevice(const std::string& modulePath, const Identity& identity = {.productId = 0xFF10});
  ~BenchDevice() override;

  VelDriver& Driver() { return *mDriver; }

  // Called on the module's thread for each reply. Null: replies are counted and whoever waits is woken.
  void SetOnReply(std::function<void()> onReply) { mOnReply = std::move(onReply); }
  // Blocks until `count` replies in all have come.
  void WaitForReplies(std::uint64_t count);
  std::uint64_t Replies() const { return mReplies.load(std::memory_order_acquire); }

  // One request after the other, each waited for.
  void RoundTrips(const Workload& workload, std::uint64_t count);

  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) override;

 private:
  const std::shared_ptr<ModuleLibrary> mLibrary;
  std::function<void()> mOnReply;
  std::atomic<std::uint64_t> mReplies{0};
  Mutex mMutex;
  CondVar mReplied;
  bool mWaiting VEL_GUARDED_BY(mMutex) = false;
  std::unique_ptr<VelDriver> mDriver;
};

}  // namespace vel

#endif
