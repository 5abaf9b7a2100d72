#include "policys/stream/UVCReadAnswerer.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include "base/Clock.h"
#include "base/VelLog.h"

namespace vel {
namespace {

void SetTimedOut(_UsbIoXferInfo& read) {
  read.status = kXferTimedOut;
  read.length = 0;
}

}  // namespace

bool UVCReadAnswerer::Start() {
  try {
    mThread = std::thread(&UVCReadAnswerer::AnswerReads, this);
  } catch (const std::exception& error) {
    VEL_ERROR("no thread to answer camera reads: %s", error.what());
    return false;
  }
  return true;
}

bool UVCReadAnswerer::Answer(_UsbIoXferInfo* read) {
  XferGuard refused(read);  // Where it cannot be kept.
  const MutexLock lock(mMutex);
  if (mStopping) {
    static_cast<void>(refused.Release());
    return false;
  }
  mReads.push_back(read);
  static_cast<void>(refused.Release());
  if (mReads.size() == 1) {
    mTally.ReadsWait(true);
    mTurnBegan = Clock::now();
    mChanged.NotifyOne();
  }
  return true;
}

void UVCReadAnswerer::FrameReady() {
  const MutexLock lock(mMutex);
  if (!mReads.empty()) {
    mChanged.NotifyOne();
  }
}

void UVCReadAnswerer::AnswerHere() {
  while (_UsbIoXferInfo* const read = TryCompletion()) {
    CompleteXfer(read);
    EndCompletion();
  }
}

void UVCReadAnswerer::GiveUpWaiting() {
  const MutexLock lock(mMutex);
  mGivenUp = mReads.size();
  mChanged.NotifyOne();
}

void UVCReadAnswerer::AnswerReads() {
  while (_UsbIoXferInfo* const read = AwaitCompletion()) {
    CompleteXfer(read);
    EndCompletion();
  }
}

_UsbIoXferInfo* UVCReadAnswerer::TryCompletion() {
  const MutexLock lock(mMutex);
  return mStopping || mCompleting ? nullptr : MatchRead();
}

_UsbIoXferInfo* UVCReadAnswerer::AwaitCompletion() {
  MutexLock lock(mMutex);
  while (!mStopping) {
    if (mReads.empty()) {
      mChanged.Wait(lock);
    } else if (mCompleting) {  // The turn of the first read begins later than now.
      mChanged.WaitUntil(lock, Clock::now() + kFrameWait);
    } else if (_UsbIoXferInfo* const read = MatchRead()) {
      return read;
    } else if (mGivenUp > 0 || Clock::now() >= mTurnBegan + kFrameWait) {
      mTally.FrameMissed();
      VEL_ERROR("CTRL Pop fail, timeout");
      _UsbIoXferInfo& late = PopRead();
      SetTimedOut(late);
      return &late;
    } else {
      mChanged.WaitUntil(lock, mTurnBegan + kFrameWait);
    }
  }
  return nullptr;
}

_UsbIoXferInfo* UVCReadAnswerer::MatchRead() {
  if (mReads.empty()) {
    return nullptr;
  }
  const UVCFramePtr frame{mFrames.DequeueFrame(0)};
  if (frame == nullptr) {
    return nullptr;
  }
  VEL_DEBUG("Poped one frame, frameLength: %d\n", static_cast<int>(frame->length));
  _UsbIoXferInfo& read = PopRead();
  mTally.FrameSent(frame->index, read.streamId, frame->length, WallClockMs());
  ReplaceXferData(read, TakeFrameData(*frame).release(), frame->length);
  return &read;
}

_UsbIoXferInfo& UVCReadAnswerer::PopRead() {
  mCompleting = true;
  _UsbIoXferInfo* const read = mReads.front();
  mReads.pop_front();
  mTally.ReadsWait(!mReads.empty());
  mGivenUp -= mGivenUp > 0 ? 1 : 0;
  return *read;
}

void UVCReadAnswerer::EndCompletion() {
  const MutexLock lock(mMutex);
  mCompleting = false;
  mTurnBegan = Clock::now();
  if (mStopping || mGivenUp > 0) {
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
    mTally.ReadsWait(!mReads.empty());
    mGivenUp = std::min(mGivenUp, mReads.size());
  }
  FailXfer(read, kXferCancelled);
  return true;
}

void UVCReadAnswerer::Stop() {
  std::deque<_UsbIoXferInfo*> left;
  {
    MutexLock lock(mMutex);
    mStopping = true;
    mChanged.NotifyAll();
    left.swap(mReads);
    while (mCompleting) {
      mChanged.Wait(lock);
    }
  }
  if (mThread.joinable()) {
    mThread.join();
  }
  std::ranges::for_each(left, [](_UsbIoXferInfo* read) {
    SetTimedOut(*read);
    CompleteXfer(read);
  });
}

}  // namespace vel
