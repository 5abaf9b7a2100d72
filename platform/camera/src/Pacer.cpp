#include "Pacer.h"

namespace oskelo {

void Pacer::Stop() {
  {
    const vel::MutexLock lock(mMutex);
    mStopped = true;
  }
  mWoken.NotifyAll();
}

void Pacer::Advance(Duration interval) {
  constexpr std::chrono::milliseconds kLate(200);
  mDue += interval;
  const auto now = std::chrono::steady_clock::now();
  if (mDue + kLate < now) {
    mDue = now;
  }
}

bool Pacer::WaitUntilDue() {
  vel::MutexLock lock(mMutex);
  while (!mStopped && std::chrono::steady_clock::now() < mDue) {
    mWoken.WaitUntil(lock, mDue);
  }
  return !mStopped;
}

}  // namespace oskelo
