#include "TimedPipeline.h"

#include <algorithm>
#include <utility>

#include "codec/DecodedPicture.h"

namespace vel {

void TimedPipeline::Enqueue(UVCFramePtr frame) {
  {
    const MutexLock lock(mMutex);
    ++mIn;
    mSeen[frame->index] = Clock::now();
  }
  if (EnqueueFrame(frame.get()) == 0) {
    static_cast<void>(frame.release());
  }
}

UVCFramePtr TimedPipeline::Dequeue(int timeoutMs) {
  UVCFramePtr frame(DequeueFrame(timeoutMs));
  if (frame != nullptr) {
    const MutexLock lock(mMutex);
    Mark(frame->index, mTimes.handOver);
    mSeen.erase(frame->index);
    mNewest = std::max(mNewest, frame->index + 1);
  }
  mTaken.NotifyOne();
  return frame;
}

void TimedPipeline::Mark(std::uint32_t index, StageTimes& stage) {
  const Clock::time_point now = Clock::now();
  const auto seen = mSeen.find(index);
  if (seen != mSeen.end()) {
    stage.push_back(std::chrono::duration<double, std::milli>(now - seen->second).count());
    seen->second = now;
  }
}

void TimedPipeline::AwaitRoom(std::uint32_t frames, int timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  MutexLock lock(mMutex);
  while (mIn - mNewest >= frames && mTaken.WaitUntil(lock, deadline)) {
  }
}

PipelineTimes TimedPipeline::Times() {
  const MutexLock lock(mMutex);
  return mTimes;
}

void TimedPipeline::OnFinishDecodePicture(const DecodedPicture& picture) {
  {
    const MutexLock lock(mMutex);
    Mark(static_cast<std::uint32_t>(picture.Index()), mTimes.decode);
  }
  UVCFrameManager::OnFinishDecodePicture(picture);
}

void TimedPipeline::OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int result) {
  {
    const MutexLock lock(mMutex);
    Mark(index, mTimes.encode);
  }
  UVCFrameManager::OnFinishEncode(index, data, length, result);
}

}  // namespace vel
