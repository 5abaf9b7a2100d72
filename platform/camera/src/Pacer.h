#ifndef OSKELO_CAMERA_PACER_H
#define OSKELO_CAMERA_PACER_H

#include <atomic>
#include <chrono>

#include "vel/Mutex.h"

namespace oskelo {

// When the next picture is due, and a wait for it that can be ended. Stop and IsStopped: any
// thread; the rest: the thread that streams.
class Pacer {
 public:
  using Duration = std::chrono::nanoseconds;

  void Stop();
  void Arm() { mStopped = false; }
  bool IsStopped() const { return mStopped.load(std::memory_order_acquire); }

  // The first picture is due now.
  void Start() { mDue = std::chrono::steady_clock::now(); }
  // The next picture is due `interval` after the one before. A source that has fallen behind by
  // more than a few pictures goes on from now, so that it never hurries through what it missed.
  void Advance(Duration interval);
  // Waits until the picture is due. False when stopped.
  bool WaitUntilDue();

 private:
  std::chrono::steady_clock::time_point mDue;
  vel::Mutex mMutex;
  vel::CondVar mWoken;
  std::atomic<bool> mStopped{false};  // Set under the mutex.
};

}  // namespace oskelo

#endif
