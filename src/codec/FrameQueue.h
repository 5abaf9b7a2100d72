#ifndef VEL_CODEC_FRAME_QUEUE_H
#define VEL_CODEC_FRAME_QUEUE_H

#include "codec/UVCFrame.h"
#include "vel/Mutex.h"

namespace vel {

// Hands finished frames to the consumer. A consumer that falls behind loses frames in between and
// gets the newest ones, instead of ever older ones. Open from the start until it is closed, once.
// Any thread.
class FrameQueue {
 public:
  // More than kFrameListLimit waiting frames are thinned before the new one is added. Frees it when
  // the queue is closed.
  void Push(UVCFramePtr frame);

  // The oldest frame; waits for one at most `timeoutMs` milliseconds. Null when none came or the
  // queue was closed.
  UVCFramePtr Pop(int timeoutMs);

  // Wakes whoever waits, and frees what waits.
  void Close();

 private:
  Mutex mMutex;
  CondVar mChanged;  // A frame was added, or the queue closed.
  UVCFrameList mFrames VEL_GUARDED_BY(mMutex);
  bool mClosed VEL_GUARDED_BY(mMutex) = false;
};

}  // namespace vel

#endif
