#include "policys/UVCReadAnswerer.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "VelLog.h"

namespace vel {
namespace {

void TimeOut(_UsbIoXferInfo& read) {
  read.status = kXferTimedOut;
  read.length = 0;
}

}  // namespace

UVCReadAnswerer::UVCReadAnswerer(UVCFrameManager& frames, UVCStreamTally& tally) : mFrames(frames), mTally(tally) {
  try {
    mThread = std::thread(&UVCReadAnswerer::Run, this);
    const MutexLock lock(mMutex);
    mHasThread = true;
  } catch (const std::system_error& error) {
    VEL_WARN("no thread to answer camera reads, they keep other requests waiting: %s", error.what());
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
    if (mHasThread) {
      mReads.push_back(read);
      mChanged.NotifyOne();
      return true;
    }
  }
  RequestFrame(*read);
  CompleteXfer(read);
  return true;
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
    mReads.erase(std::prev(found.base()));
  }
  FailXfer(read, kXferCancelled);
  return true;
}

void UVCReadAnswerer::Run() {
  for (;;) {
    _UsbIoXferInfo* read = nullptr;
    {
      MutexLock lock(mMutex);
      while (mReads.empty() && !mStopping) {
        mChanged.Wait(lock);
      }
      if (mStopping) {
        return;
      }
      read = mReads.front();
      mReads.pop_front();
    }
    RequestFrame(*read);
    CompleteXfer(read);
  }
}

// 0, or -1 when the read timed out.
int UVCReadAnswerer::RequestFrame(_UsbIoXferInfo& read) {
  const UVCFramePtr frame(mFrames.DequeueFrame(kFrameWaitMs));
  if (frame == nullptr) {
    mTally.FrameMissed();
    VEL_ERROR("CTRL Pop fail, timeout");
    TimeOut(read);
    return -1;
  }
  VEL_DEBUG("Poped one frame, frameLength: %d\n", static_cast<int>(frame->length));
  mTally.FrameSent(frame->index, read.streamId, frame->length, static_cast<std::int64_t>(UVCUtil::GetTimeMs()));
  ReplaceXferData(read, TakeFrameData(*frame).release(), frame->length);
  return 0;
}

void UVCReadAnswerer::Stop() {
  std::deque<_UsbIoXferInfo*> left;
  {
    const MutexLock lock(mMutex);
    mStopping = true;
    mChanged.NotifyAll();
  }
  if (mThread.joinable()) {
    mThread.join();
  }
  {
    const MutexLock lock(mMutex);
    left.swap(mReads);
  }
  for (_UsbIoXferInfo* read : left) {
    TimeOut(*read);
    CompleteXfer(read);
  }
}

}  // namespace vel
