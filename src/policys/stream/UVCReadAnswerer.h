#ifndef VEL_POLICYS_STREAM_UVC_READ_ANSWERER_H
#define VEL_POLICYS_STREAM_UVC_READ_ANSWERER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <thread>

#include "io/UsbIoXferInfo.h"
#include "policys/UVCFrameManager.h"
#include "policys/stream/UVCStreamTally.h"
#include "vel/Mutex.h"

namespace vel {

// Answers the remote side's reads of the streaming endpoint, one whole frame each, in their order. Where a read and a
// frame meet, the thread that brought the later of the two completes the read, without a hand-over; a thread of its own
// only watches the time, so that other requests go on while a read waits.
class UVCReadAnswerer {
 public:
  // How long a read whose turn it is waits for its frame before it fails as timed out.
  static constexpr std::chrono::milliseconds kFrameWait{500};

  // Both outlive this object.
  UVCReadAnswerer(UVCFrameManager& frames, UVCStreamTally& tally);
  UVCReadAnswerer(const UVCReadAnswerer&) = delete;
  UVCReadAnswerer& operator=(const UVCReadAnswerer&) = delete;
  ~UVCReadAnswerer();

  // Takes the read and sees to its one completion, which may come before this returns. False after Stop: it stays the
  // caller's. Any thread.
  bool Answer(_UsbIoXferInfo* read);

  // Completes reads with the frames that there are. After every frame; any thread, with no lock held.
  void AnswerReady();

  // Completes the last read of this id as cancelled, if it still waits. Any thread.
  bool Cancel(std::uint32_t localXferId);

  // Completes what waits as timed out. Not from a completion. Repeating it does nothing.
  void Stop();

 private:
  using Clock = std::chrono::steady_clock;

  void WatchTime();
  _UsbIoXferInfo* AwaitOverdue();
  _UsbIoXferInfo* TakeAnswered();
  _UsbIoXferInfo* PopRead() VEL_REQUIRES(mMutex);
  void Completed();

  UVCFrameManager& mFrames;
  UVCStreamTally& mTally;
  Mutex mMutex;
  CondVar mChanged;  // A first read came to the watch, a completion ended, or Stop.
  bool mStopping VEL_GUARDED_BY(mMutex) = false;
  // Some thread completes a read, unlocked. No other does meanwhile, so that replies keep the order of the reads.
  bool mCompleting VEL_GUARDED_BY(mMutex) = false;
  bool mWatchIdle VEL_GUARDED_BY(mMutex) = false;             // The watch has no time to wait for.
  std::deque<_UsbIoXferInfo*> mReads VEL_GUARDED_BY(mMutex);  // Bounded by the device's budget.
  Clock::time_point mTurnBegan VEL_GUARDED_BY(mMutex);        // Of the first of them.
  std::thread mThread;
};

}  // namespace vel

#endif
