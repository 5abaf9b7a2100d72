#include "io/DummyUsbIo/CaptureThread.h"

#include <chrono>
#include <exception>
#include <utility>

#include "base/LockOrder.h"
#include "base/ModulePin.h"

namespace vel {
namespace {

constexpr std::chrono::milliseconds kLeaveLimit(1000);

}  // namespace

struct CaptureThread::State {
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  CondVar changed;
  bool ended VEL_GUARDED_BY(mutex) = false;
};

bool CaptureThread::Start(std::function<void()> function) {
  Leave();
  mState = std::make_shared<State>();
  try {
    mThread = std::thread([state = mState, function = std::move(function)] {
      function();
      const MutexLock lock(state->mutex);
      state->ended = true;
      state->changed.NotifyAll();
    });
  } catch (const std::exception&) {
    mState.reset();
    return false;
  }
  return true;
}

bool CaptureThread::HasEnded() const {
  if (mState == nullptr) {
    return true;
  }
  const MutexLock lock(mState->mutex);
  return mState->ended;
}

bool CaptureThread::AwaitEnd() const {
  const auto deadline = std::chrono::steady_clock::now() + kLeaveLimit;
  const bool own = mThread.get_id() == std::this_thread::get_id();
  MutexLock lock(mState->mutex);
  while (!mState->ended && !own && mState->changed.WaitUntil(lock, deadline)) {
  }
  return mState->ended;
}

void CaptureThread::Leave() {
  if (!mThread.joinable()) {
    return;
  }
  if (AwaitEnd()) {
    mThread.join();
  } else {
    PinModule();
    mThread.detach();
  }
}

}  // namespace vel
