#include "far/Alarms.h"

#include <utility>

namespace vel {

void Alarms::At(Clock::time_point time, std::function<void()> call) {
  const MutexLock lock(mMutex);
  if (mStopped) {
    return;
  }
  const bool first = mCalls.emplace(time, std::move(call)) == mCalls.begin();
  if (!mThread.joinable()) {
    mThread = std::thread([this] { Run(); });
  } else if (first) {
    mChanged.NotifyAll();
  }
}

void Alarms::Stop() {
  std::thread thread;
  {
    const MutexLock lock(mMutex);
    mStopped = true;
    mChanged.NotifyAll();
    thread.swap(mThread);
  }
  if (thread.joinable()) {
    thread.join();
  }
}

void Alarms::Run() {
  while (true) {
    std::function<void()> call;
    {
      MutexLock lock(mMutex);
      while (!mStopped && (mCalls.empty() || mCalls.begin()->first > Clock::now())) {
        if (mCalls.empty()) {
          mChanged.Wait(lock);
        } else {
          mChanged.WaitUntil(lock, mCalls.begin()->first);
        }
      }
      if (mStopped) {
        return;
      }
      call = std::move(mCalls.begin()->second);
      mCalls.erase(mCalls.begin());
    }
    call();
  }
}

}  // namespace vel
