#ifndef VIRTUSB_TESTS_IO_CAMERA_COMPLETIONS_H
#define VIRTUSB_TESTS_IO_CAMERA_COMPLETIONS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <vector>

#include "io/UsbIoXferInfo.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {

using Bytes = std::vector<std::uint8_t>;

// Submits records and keeps what was completed.
class Completions final : public UsbIoTransferCallback {
 public:
  struct Done {
    std::uint32_t streamId = 0;
    std::int32_t status = 0;
    std::optional<Bytes> data;
    std::chrono::steady_clock::time_point when;
    bool operator==(const Done& other) const {
      return streamId == other.streamId && status == other.status && data == other.data;
    }
  };

  // Called in each completion.
  std::function<void()> hook;

  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    const XferPtr owned(info);
    Done done{info->streamId, info->status, std::nullopt, std::chrono::steady_clock::now()};
    if (info->data != nullptr) {
      done.data.emplace(info->data, info->data + info->length);
    }
    {
      const MutexLock lock(mMutex);
      mDone.push_back(std::move(done));
      mChanged.NotifyAll();
    }
    if (hook) {
      hook();
    }
  }

  // What was completed, once there are `n`; fewer after the deadline.
  std::vector<Done> Await(std::size_t n) {
    EXPECT_TRUE(WaitFor(n));
    const MutexLock lock(mMutex);
    return mDone;
  }
  // False when there are fewer after the deadline.
  [[nodiscard]] bool WaitFor(std::size_t n) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mDone.size() < n && mChanged.WaitUntil(lock, deadline)) {
    }
    return mDone.size() >= n;
  }
  std::vector<Done> Take() {
    const MutexLock lock(mMutex);
    return std::exchange(mDone, {});
  }

  _UsbIoXferInfo* Record(std::uint32_t streamId, std::optional<std::uint32_t> size) {
    XferPtr info = MakeXfer();
    info->xferType = kXferIsochronous;
    info->epAddr = 0x81;
    info->streamId = info->localXferId = streamId;
    info->callback = this;
    info->status = kXferTimedOut;
    info->length = size.value_or(40);
    if (size) {
      info->data = static_cast<std::uint8_t*>(std::malloc(std::max(*size, 1U)));
      std::fill_n(info->data, *size, std::uint8_t{0xEE});
    }
    return info.release();
  }

 private:
  Mutex mMutex;
  CondVar mChanged;
  std::vector<Done> mDone VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
