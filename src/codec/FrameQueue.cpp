#include "codec/FrameQueue.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vel {

void FrameQueue::Push(UVCFramePtr frame) {
  {
    const MutexLock lock(mMutex);
    if (mClosed) {
      return;
    }
    if (mFrames.size() > kFrameListLimit) {
      FrameListResize(kFrameListCacheSize, mFrames);
    }
    mFrames.push_back(std::move(frame));
  }
  mChanged.NotifyOne();
}

UVCFramePtr FrameQueue::Pop(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
  MutexLock lock(mMutex);
  while (mFrames.empty() && !mClosed && timeoutMs > 0 && mChanged.WaitUntil(lock, deadline)) {
  }
  if (mFrames.empty()) {
    return nullptr;
  }
  UVCFramePtr frame = std::move(mFrames.front());
  mFrames.pop_front();
  return frame;
}

void FrameQueue::Close() {
  UVCFrameList unread;
  {
    const MutexLock lock(mMutex);
    mClosed = true;
    unread.swap(mFrames);
  }
  mChanged.NotifyAll();
}

}  // namespace vel
