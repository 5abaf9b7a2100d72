#include "policys/stream/UVCReadAnswerer.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "base/Clock.h"
#include "base/VelLog.h"

namespace vel {
namespace {

void CompleteTimedOut(_UsbIoXferInfo* read) {
  read->status = kXferTimedOut;
  read->length = 0;
  CompleteXfer(read);
}

}  // namespace

UVCReadAnswerer::UVCReadAnswerer(UVCFrameManager& frames, UVCStreamTally& tally) : mFrames(frames), mTally(tally) {
  try {
    mThread = std::thread(&UVCReadAnswerer::WatchTime, this);
  } catch (const std::system_error& error) {
    VEL_WARN("no thread to watch camera reads, they wait until a frame or the stream's end: %s", error.what());
  }
}

UVCReadAnswerer::~UVCReadAnswerer() {
  Stop();
}

bool UVCReadAnswerer::Answer(_UsbIoXferInfo* read) {
  {
    const MutexLock lock(mMutex);
    if (mStopping) {
      return false;
    }
    mReads.push_back(read);
    if (mReads.size() == 1) {
      mTurnBegan = Clock::now();
      if (std::exchange(mWatchIdle, false)) {
        mChanged.NotifyAll();
      }
    }
  }
  AnswerReady();
  return true;
}

void UVCReadAnswerer::AnswerReady() {
  while (_UsbIoXferInfo* const read = TakeAnswered()) {
    CompleteXfer(read);
    Completed();
  }
}

// The read whose turn it is, with its frame; null without a frame, and while another thread completes a read: that one
// looks again afterwards.
_UsbIoXferInfo* UVCReadAnswerer::TakeAnswered() {
  const MutexLock lock(mMutex);
  if (mCompleting || mStopping || mReads.empty()) {
    return nullptr;
  }
  const UVCFramePtr frame(mFrames.DequeueFrame(0));
  if (frame == nullptr) {
    return nullptr;
  }
  VEL_DEBUG("Poped one frame, frameLength: %d\n", static_cast<int>(frame->length));
  _UsbIoXferInfo* const read = PopRead();
  mTally.FrameSent(frame->index, read->streamId, frame->length, WallClockMs());
  ReplaceXferData(*read, TakeFrameData(*frame).release(), frame->length);
  return read;
}

_UsbIoXferInfo* UVCReadAnswerer::PopRead() {
  mCompleting = true;
  _UsbIoXferInfo* const read = mReads.front();
  mReads.pop_front();
  return read;
}

void UVCReadAnswerer::Completed() {
  const MutexLock lock(mMutex);
  mCompleting = false;
  mTurnBegan = Clock::now();
  if (mStopping) {
    mChanged.NotifyAll();
  }
}

bool UVCReadAnswerer::Cancel(std::uint32_t localXferId) {
  _UsbIoXferInfo* read = nullptr;
  {
    const MutexLock lock(mMutex);
    const auto found = std::find_if(mReads.rbegin(), mReads.rend(), [localXferId](const _UsbIoXferInfo* each) {
      return each->localXferId == localXferId;
    });
    if (found == mReads.rend()) {
      return false;
    }
    read = *found;
    if (read == mReads.front()) {
      mTurnBegan = Clock::now();
    }
    mReads.erase(std::prev(found.base()));
  }
  FailXfer(read, kXferCancelled);
  return true;
}

void UVCReadAnswerer::WatchTime() {
  while (_UsbIoXferInfo* const read = AwaitOverdue()) {
    mTally.FrameMissed();
    VEL_ERROR("CTRL Pop fail, timeout");
    CompleteTimedOut(read);
    Completed();
    AnswerReady();
  }
}

// Null at Stop. Wakes at the end of a wait, and else seldom: a read that is answered in time does not wake it, since
// what comes meanwhile ends later than the wait that this thread is in.
_UsbIoXferInfo* UVCReadAnswerer::AwaitOverdue() {
  MutexLock lock(mMutex);
  while (!mStopping) {
    const auto now = Clock::now();
    const bool overdue = now >= mTurnBegan + kFrameWait;
    if (mCompleting || (mReads.empty() && !overdue)) {
      mChanged.WaitUntil(lock, now + kFrameWait);
    } else if (mReads.empty()) {
      mWatchIdle = true;
      mChanged.Wait(lock);
    } else if (!overdue) {
      mChanged.WaitUntil(lock, mTurnBegan + kFrameWait);
    } else {
      return PopRead();
    }
  }
  return nullptr;
}

void UVCReadAnswerer::Stop() {
  std::deque<_UsbIoXferInfo*> left;
  {
    MutexLock lock(mMutex);
    mStopping = true;
    mChanged.NotifyAll();
    while (mCompleting) {
      mChanged.Wait(lock);
    }
    left.swap(mReads);
  }
  if (mThread.joinable()) {
    mThread.join();
  }
  std::ranges::for_each(left, CompleteTimedOut);
}

}  // namespace vel
