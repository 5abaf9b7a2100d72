#include "far/Alarms.h"

#include <utility>

namespace vel {

Alarms::Ticket Alarms::At(Clock::time_point time, std::function<void()> call) {
  const MutexLock lock(mMutex);
  const Ticket ticket(time, ++mLast);
  if (mStopped) {
    return ticket;
  }
  const bool first = mCalls.emplace(ticket, std::move(call)).first == mCalls.begin();
  if (!mThread.joinable()) {
    mThread = std::thread([this] { Run(); });
  } else if (first) {
    mChanged.NotifyAll();
  }
  return ticket;
}

void Alarms::Cancel(const Ticket& ticket) {
  const MutexLock lock(mMutex);
  mCalls.erase(ticket);
}

void Alarms::CancelAll() {
  const MutexLock lock(mMutex);
  mCalls.clear();
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
      while (!mStopped && (mCalls.empty() || mCalls.begin()->first.first > Clock::now())) {
        if (mCalls.empty()) {
          mChanged.Wait(lock);
        } else {
          mChanged.WaitUntil(lock, mCalls.begin()->first.first);
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
