#ifndef VEL_POLICYS_UVC_READ_ANSWERER_H
#define VEL_POLICYS_UVC_READ_ANSWERER_H

#include <cstdint>
#include <deque>
#include <thread>

#include "io/UsbIoXferInfo.h"
#include "policys/UVCFrameManager.h"
#include "policys/UVCStreamTally.h"
#include "vel/Mutex.h"

namespace vel {

// Answers the remote side's reads of the streaming endpoint, one whole frame each, in their order.
// On a thread of its own, so that other requests go on while a read waits for its frame.
class UVCReadAnswerer {
 public:
  // How long a read waits for its frame before it fails as timed out.
  static constexpr int kFrameWaitMs = 500;

  // Both outlive this object.
  UVCReadAnswerer(UVCFrameManager& frames, UVCStreamTally& tally);
  UVCReadAnswerer(const UVCReadAnswerer&) = delete;
  UVCReadAnswerer& operator=(const UVCReadAnswerer&) = delete;
  ~UVCReadAnswerer();

  // Takes the read and sees to its one completion. False after Stop: it stays the caller's. Any
  // thread.
  bool Answer(_UsbIoXferInfo* read);

  // Completes the last read of this id as cancelled, if it still waits for its turn. Any thread.
  bool Cancel(std::uint32_t localXferId);

  // Completes what waits as timed out. The frame manager is released before, which ends the wait
  // of the read whose turn it is. Repeating it does nothing.
  void Stop();

 private:
  void Run();
  int RequestFrame(_UsbIoXferInfo& read);

  UVCFrameManager& mFrames;
  UVCStreamTally& mTally;
  Mutex mMutex;
  CondVar mChanged;
  bool mStopping VEL_GUARDED_BY(mMutex) = false;
  bool mHasThread VEL_GUARDED_BY(mMutex) = false;
  std::deque<_UsbIoXferInfo*> mReads VEL_GUARDED_BY(mMutex);  // Bounded by the device's budget.
  std::thread mThread;
};

}  // namespace vel

#endif
