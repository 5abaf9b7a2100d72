#ifndef VEL_POLICYS_STREAM_UVC_READ_ANSWERER_H
#define VEL_POLICYS_STREAM_UVC_READ_ANSWERER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <thread>

#include "base/LockOrder.h"
#include "io/UsbIoXferInfo.h"
#include "policys/UVCFrameManager.h"
#include "policys/stream/UVCStreamTally.h"

namespace vel {

// Answers the remote side's reads of the streaming endpoint, one whole frame each, in their order, and never on a
// thread that takes in the camera's transfers or other requests: a remote side may take its replies slowly. A frame
// that meets a waiting read is sent by the coder's thread that made it, which saves a hand-over; all else by a thread
// of its own.
//
//   stopping  completing  reads  frames  the thread
//   no        yes         any    any     sleeps: the coder's thread sends, and looks for more afterwards
//   no        no          none   any     sleeps until a read comes
//   no        no          some   none    sleeps until a frame comes; lets the first read time out kFrameWait after its
//                                        turn began
//   no        no          some   some    completes the first read with the oldest frame
//   no        no          given  none    lets them time out at once
//                         up
//   yes       any         any    any     ends; Stop lets what waits time out
//
// A read's turn begins when it is the first and the one before is completed. A cancelled read is completed by whoever
// cancels it.
class UVCReadAnswerer {
 public:
  // How long a read whose turn it is waits for its frame before it fails as timed out.
  static constexpr std::chrono::milliseconds kFrameWait{500};

  // Both outlive this object.
  UVCReadAnswerer(UVCFrameManager& frames, UVCStreamTally& tally) : mFrames(frames), mTally(tally) {}
  UVCReadAnswerer(const UVCReadAnswerer&) = delete;
  UVCReadAnswerer& operator=(const UVCReadAnswerer&) = delete;
  ~UVCReadAnswerer() = default;  // Stop comes first.

  // Once, before any read. False, with an Error line, when there is no thread to be had.
  bool Start();

  // Takes the read and sees to its one completion. False after Stop: it stays the caller's. Any thread.
  bool Answer(_UsbIoXferInfo* read);

  // A frame was made ready. Any thread; returns at once.
  void FrameReady();
  // The same on a thread that may wait for the remote side: completes a read there unless one is being completed.
  void AnswerHere();

  // No frame will come for the reads that wait now. Any thread; returns at once.
  void GiveUpWaiting();

  // Completes the last read of this id as cancelled, if it still waits. Any thread.
  bool Cancel(std::uint32_t localXferId);

  // Completes what waits as timed out, behind what is being completed. Not from a completion. Repeating it does
  // nothing.
  void Stop();

 private:
  using Clock = std::chrono::steady_clock;

  void AnswerReads();
  // The next read to complete, with its frame or as timed out; null at Stop.
  _UsbIoXferInfo* AwaitCompletion();
  // The first read with the oldest frame; null while there are not both, somebody completes one, or after Stop.
  _UsbIoXferInfo* TryCompletion();
  // Follows the completion of what these return.
  void EndCompletion();
  _UsbIoXferInfo* MatchRead() VEL_REQUIRES(mMutex);
  _UsbIoXferInfo& PopRead() VEL_REQUIRES(mMutex);

  UVCFrameManager& mFrames;
  UVCStreamTally& mTally;
  Mutex mMutex VEL_LOCK_LEVEL(Work);
  CondVar mChanged;  // A first read or, while one waits, a frame came or none will; Stop, or what it waits for.
  bool mStopping VEL_GUARDED_BY(mMutex) = false;
  bool mCompleting VEL_GUARDED_BY(mMutex) = false;
  std::deque<_UsbIoXferInfo*> mReads VEL_GUARDED_BY(mMutex);  // Bounded by the device's budget.
  std::size_t mGivenUp VEL_GUARDED_BY(mMutex) = 0;            // Of the first of them.
  Clock::time_point mTurnBegan VEL_GUARDED_BY(mMutex);        // Of the first of them.
  std::thread mThread;
};

}  // namespace vel

#endif
