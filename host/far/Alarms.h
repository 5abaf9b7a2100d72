#ifndef VIRTUSB_HOST_FAR_ALARMS_H
#define VIRTUSB_HOST_FAR_ALARMS_H

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "vel/Mutex.h"

namespace vel {

// Calls functions at their times, on a thread of its own that is there from the first one on.
class Alarms {
 public:
  using Clock = std::chrono::steady_clock;

  Alarms() = default;
  Alarms(const Alarms&) = delete;
  Alarms& operator=(const Alarms&) = delete;
  ~Alarms() { Stop(); }

  // Any thread. In the order of the times, and for the same time in the order of the calls.
  void At(Clock::time_point time, std::function<void()> call) VEL_EXCLUDES(mMutex);
  // Nothing is called any more when it returns, and nothing is taken. Not from a call.
  void Stop() VEL_EXCLUDES(mMutex);

 private:
  void Run() VEL_EXCLUDES(mMutex);

  Mutex mMutex;
  CondVar mChanged;
  bool mStopped VEL_GUARDED_BY(mMutex) = false;
  std::multimap<Clock::time_point, std::function<void()>> mCalls VEL_GUARDED_BY(mMutex);
  std::thread mThread VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
