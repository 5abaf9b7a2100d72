#ifndef VIRTUSB_TESTS_POLICYS_STREAM_READS_H
#define VIRTUSB_TESTS_POLICYS_STREAM_READS_H

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "io/UsbIoXferInfo.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel::test {

// The remote side's reads of a streaming endpoint: makes their records and takes their completions
// down. One that does not come, or comes twice, fails the test.
class Reads final : public UsbIoTransferCallback {
 public:
  struct Done {
    std::uint32_t id;
    int status;
    std::string data;
    bool operator==(const Done&) const = default;
  };

  Reads() = default;
  Reads(const Reads&) = delete;
  Reads& operator=(const Reads&) = delete;
  ~Reads() override {
    const MutexLock lock(mMutex);
    EXPECT_EQ(mDone.size(), mMade) << "a read was not completed";
    std::map<std::uint32_t, int> counts;
    for (const Done& done : mDone) {
      EXPECT_EQ(++counts[done.id], 1) << "of read " << done.id;
    }
  }

  // Ids count from 1.
  _UsbIoXferInfo* Make() {
    const MutexLock lock(mMutex);
    _UsbIoXferInfo* const info = MakeXfer().release();
    info->xferType = kXferIsochronous;
    info->streamId = info->localXferId = ++mMade;
    info->epAddr = 0x81;
    info->length = 16;
    info->data = static_cast<std::uint8_t*>(std::calloc(1, 16));
    info->callback = this;
    return info;
  }

  // The first `count` completions; fewer after the deadline, which only a failure reaches.
  std::vector<Done> Await(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mDone.size() < count && mChanged.WaitUntil(lock, deadline)) {
    }
    return mDone;
  }
  // All reads that were made have come back.
  [[nodiscard]] bool AwaitAll() {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mDone.size() < mMade && mChanged.WaitUntil(lock, deadline)) {
    }
    return mDone.size() == mMade;
  }
  std::size_t Count() { return Await(0).size(); }

 private:
  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    const XferPtr owned(info);
    const MutexLock lock(mMutex);
    mDone.push_back({info->streamId, info->status, std::string()});
    if (info->data != nullptr) {
      mDone.back().data.assign(info->data, info->data + info->length);
    }
    mChanged.NotifyAll();
  }

  Mutex mMutex;
  CondVar mChanged;
  std::uint32_t mMade VEL_GUARDED_BY(mMutex) = 0;
  std::vector<Done> mDone VEL_GUARDED_BY(mMutex);
};

}  // namespace vel::test

#endif
