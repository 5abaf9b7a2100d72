#ifndef VEL_IDLE_SPIN_H
#define VEL_IDLE_SPIN_H

#include <algorithm>
#include <chrono>
#include <thread>

#include "vel/Processors.h"

namespace vel {

// What a thread does between two looks: leaves its core's units to the other thread there. Nothing where that is
// unknown.
inline void PauseProcessor() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

// Looks for work for a moment before a thread sleeps: being woken takes both sides longer than this. A moment that
// brought nothing makes it sleep at once the next times, twice as many each time, so that a thread with little to do,
// or with work at longer intervals, hardly ever spins. Never on one processor. One thread.
class IdleSpin {
 public:
  explicit IdleSpin(unsigned processors = UsableProcessors()) : mUseful(processors > 1) {}

  // Whether `ready()` became true.
  template <class Ready>
  bool Await(Ready ready) {
    if (!mUseful || mSleepsLeft > 0) {
      mSleepsLeft -= mSleepsLeft > 0 ? 1 : 0;
      return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + kMoment;
    do {
      for (int i = 0; i < kLooks; ++i) {
        if (ready()) {
          mSleeps = 0;
          return true;
        }
        PauseProcessor();
      }
      std::this_thread::yield();  // Who has the work may need this processor.
    } while (std::chrono::steady_clock::now() < deadline);
    mSleeps = std::min(2 * mSleeps + 1, kMostSleeps);
    mSleepsLeft = mSleeps;
    return false;
  }

 private:
  // About what it takes to wake a thread on another processor, and for that one to answer.
  static constexpr std::chrono::microseconds kMoment{60};
  static constexpr int kLooks = 16;
  static constexpr int kMostSleeps = 63;

  const bool mUseful;
  int mSleeps = 0;      // After the last moment in vain.
  int mSleepsLeft = 0;  // Of these, to come.
};

}  // namespace vel

#endif
