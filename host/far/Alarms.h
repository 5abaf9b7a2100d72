#ifndef VIRTUSB_HOST_FAR_ALARMS_H
#define VIRTUSB_HOST_FAR_ALARMS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>
#include <utility>

#include "vel/Mutex.h"

namespace vel {

// Calls functions at their times, on a thread of its own that is there from the first one on.
class Alarms {
 public:
  using Clock = std::chrono::steady_clock;
  using Ticket = std::pair<Clock::time_point, std::uint64_t>;  // The time, and the number of the call.

  Alarms() = default;
  Alarms(const Alarms&) = delete;
  Alarms& operator=(const Alarms&) = delete;
  ~Alarms() { Stop(); }

  // Any thread. In the order of the times, and for the same time in the order of the calls.
  Ticket At(Clock::time_point time, std::function<void()> call) VEL_EXCLUDES(mMutex);
  // Takes one back that has not begun.
  void Cancel(const Ticket& ticket) VEL_EXCLUDES(mMutex);
  // All of them.
  void CancelAll() VEL_EXCLUDES(mMutex);
  // Nothing is called any more when it returns, and nothing is taken. Not from a call.
  void Stop() VEL_EXCLUDES(mMutex);

 private:
  void Run() VEL_EXCLUDES(mMutex);

  Mutex mMutex;
  CondVar mChanged;
  bool mStopped VEL_GUARDED_BY(mMutex) = false;
  std::uint64_t mLast VEL_GUARDED_BY(mMutex) = 0;
  std::map<Ticket, std::function<void()>> mCalls VEL_GUARDED_BY(mMutex);
  std::thread mThread VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
