#ifndef VIRTUSB_TESTS_POLICYS_CODEC_ENCODED_FRAMES_H
#define VIRTUSB_TESTS_POLICYS_CODEC_ENCODED_FRAMES_H

#include <algorithm>
#include <cstdint>
#include <vector>

#include "Scene.h"
#include "policys/FrameBlocks.h"
#include "policys/UVCDecoderHandler.h"
#include "policys/UVCEncoderHandler.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel::test {

struct Delivered {
  std::int64_t index;
  Bytes bytes;
};

// Takes down what an encoder or a decoder delivers.
class Deliveries : public UVCEncoderHandler, public UVCDecoderHandler {
 public:
  void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int /*result*/) override {
    const HeapBlock block(data);
    Add(index, {data, data + length});
  }
  void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) override {
    Add(index, {data, data + length});
  }

  // The first `count` deliveries; fewer after the deadline, which only a failure reaches.
  std::vector<Delivered> Await(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mFrames.size() < count && mAdded.WaitUntil(lock, deadline)) {
    }
    return {mFrames.begin(), mFrames.begin() + static_cast<std::ptrdiff_t>(std::min(count, mFrames.size()))};
  }

 private:
  void Add(std::int64_t index, Bytes bytes) {
    const MutexLock lock(mMutex);
    mFrames.push_back({index, std::move(bytes)});
    mAdded.NotifyAll();
  }

  Mutex mMutex;
  CondVar mAdded;
  std::vector<Delivered> mFrames VEL_GUARDED_BY(mMutex);
};

}  // namespace vel::test

#endif
