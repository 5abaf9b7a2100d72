#include "policys/stream/UVCStreamTally.h"

#include <algorithm>

#include "base/VelLog.h"

namespace vel {

void UVCStreamTally::ReadsWait(bool any) {
  const MutexLock lock(mMutex);
  mReadsWait = any;
}

bool UVCStreamTally::AddPending() {
  const MutexLock lock(mMutex);
  if (mPending >= (mNewestPictures && !mReadsWait ? 1 : kMaxPending)) {
    return false;
  }
  ++mLetIn;
  ++mPending;
  return true;
}

void UVCStreamTally::FrameMissed() {
  const MutexLock lock(mMutex);
  mPending -= std::min(mPending, 1U);
}

void UVCStreamTally::FrameCompleted(std::uint32_t index, std::int64_t now) {
  const MutexLock lock(mMutex);
  mLatencies[index % kRemembered] = {.index = index, .completed = now, .sent = 0, .length = 0};
}

void UVCStreamTally::FrameSent(std::uint32_t index, std::uint32_t streamId, std::uint32_t length, std::int64_t now) {
  Latency sent{};
  std::int64_t sentBefore = 0;
  {
    const MutexLock lock(mMutex);
    mPending = std::min(mPending, mLetIn - std::min(mLetIn, index + 1));
    Latency& latency = mLatencies[index % kRemembered];
    latency.sent = now;
    latency.length = length;
    sent = latency;
    sentBefore = mLastSent;
    mLastSent = now;
  }
  VEL_DEBUG(
      "[UVC tuning]Poped one frame, frameLength: %d, streamid= %ld frame index= %ld camera time "
      "test start at %lld time\n",
      static_cast<int>(length), static_cast<long>(streamId), static_cast<long>(index), static_cast<long long>(now));
  if (sent.index == index && sent.completed != 0) {
    CameraTimeProcess(sent, streamId, sentBefore == 0 ? sent.completed : sentBefore);
  }
}

void UVCStreamTally::CameraTimeProcess(const Latency& latency, std::uint32_t streamId, std::int64_t sentBefore) {
  VEL_DEBUG(
      "[UVC tuning] streamid = %ld camera process time total cost = %lld send "
      "(uint32)frameLength=%d pipeline total cost(include rtt) =%lld\n",
      static_cast<long>(streamId), static_cast<long long>(latency.sent - latency.completed),
      static_cast<int>(latency.length), static_cast<long long>(latency.sent - sentBefore));
}

}  // namespace vel
