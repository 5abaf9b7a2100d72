#ifndef VIRTUSB_TESTS_SUPPORT_COUNTING_DEVICE_BASE_H
#define VIRTUSB_TESTS_SUPPORT_COUNTING_DEVICE_BASE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "protocol/Commands.h"
#include "support/FakeDeviceBase.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {

// The framework's side of a device for more replies than can be kept: it counts them, and knows the last one. Allocates
// nothing. Any thread.
class CountingDeviceBase : public FakeDeviceBase {
 public:
  explicit CountingDeviceBase(std::uint16_t productId, bool answersFailedTransfers = true)
      : FakeDeviceBase({.productId = productId}, answersFailedTransfers) {}

  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t /*waitMs*/) override {
    const CommandInfo* request = FindCommand(static_cast<std::uint16_t>(packet->GetCommand() - 1));
    const MutexLock lock(mMutex);
    ++mReplies;
    if (request != nullptr && request->reply == ReplyKind::kSync) {
      mLastDevId = packet->GetDevId();
      mChanged.NotifyAll();
    }
    return 0;
  }

  // False when the reply to `devId` is not the last one of a synchronous command by the deadline.
  [[nodiscard]] bool AwaitSync(std::uint32_t devId) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mLastDevId != devId && mChanged.WaitUntil(lock, deadline)) {
    }
    return mLastDevId == devId;
  }
  std::size_t Replies() {
    const MutexLock lock(mMutex);
    return mReplies;
  }

 private:
  Mutex mMutex;
  CondVar mChanged;
  std::size_t mReplies VEL_GUARDED_BY(mMutex) = 0;
  std::uint32_t mLastDevId VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace vel

#endif
