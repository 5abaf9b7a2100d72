#ifndef VEL_POLICYS_STREAM_UVC_STREAM_TALLY_H
#define VEL_POLICYS_STREAM_UVC_STREAM_TALLY_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/LockOrder.h"

namespace vel {

// How many of a stream's frames wait for the remote side, and how long its frames took. Any thread.
class UVCStreamTally {
 public:
  // More frames than this are not let in while nobody reads.
  static constexpr std::uint32_t kMaxPending = 3;

  // `newestPictures`: as long as no read waits, one frame does, so that what the next read gets is new.
  explicit UVCStreamTally(bool newestPictures = false) : mNewestPictures(newestPictures) {}

  // Whether a read waits for a frame.
  void ReadsWait(bool any);

  // False when as many wait as may; otherwise one more does.
  bool AddPending();
  // One frame was waited for in vain.
  void FrameMissed();

  // A frame came from the camera at `now` (milliseconds, WallClockMs).
  void FrameCompleted(std::uint32_t index, std::int64_t now);
  // It goes to the remote side, and what came before it does not wait any more: a coder that fails at a frame gives
  // none. Logs at Debug what it cost.
  void FrameSent(std::uint32_t index, std::uint32_t streamId, std::uint32_t length, std::int64_t now);

 private:
  struct Latency {
    std::uint32_t index;
    std::int64_t completed;
    std::int64_t sent;
    std::uint32_t length;
  };
  static constexpr std::size_t kRemembered = 16;  // More than there are frames on their way.

  static void CameraTimeProcess(const Latency& latency, std::uint32_t streamId, std::int64_t sentBefore);

  const bool mNewestPictures;
  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  bool mReadsWait VEL_GUARDED_BY(mMutex) = false;
  std::uint32_t mLetIn VEL_GUARDED_BY(mMutex) = 0;                       // Counts as the frames' indexes do.
  std::uint32_t mPending VEL_GUARDED_BY(mMutex) = 0;                     // The last ones of them.
  std::array<Latency, kRemembered> mLatencies VEL_GUARDED_BY(mMutex){};  // By index, modulo.
  std::int64_t mLastSent VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace vel

#endif
