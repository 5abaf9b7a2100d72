#include "observe/Observer.h"

#include <algorithm>
#include <utility>

namespace vel {

Observer::Observer(Options options) : mOptions(std::move(options)) {
  if (!mOptions.capture.empty()) {
    mCapture.emplace(mOptions.capture, mOptions.captureBytes, mOptions.note);
  }
  mThread = std::thread([this] { Run(); });
}

Observer::~Observer() {
  mEnd.Raise();
  mThread.join();
  if (mOptions.interval.count() > 0) {
    Show();
  }
}

std::shared_ptr<DeviceTap> Observer::Watch(std::string device) {
  auto tap = std::make_shared<DeviceTap>(std::move(device), mCapture ? &*mCapture : nullptr);
  const MutexLock lock(mMutex);
  if (mOptions.interval.count() == 0) {  // Nobody has asked for those that are gone.
    std::erase_if(mTaps, [](const auto& each) { return each.use_count() == 1; });
  }
  mTaps.push_back(tap);
  return tap;
}

void Observer::Run() {
  using Clock = std::chrono::steady_clock;
  const bool regular = mOptions.interval.count() > 0;
  Clock::time_point due = Clock::now() + mOptions.interval;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
    const bool asked =
        mEnd.WaitFor(mAsked.Fd(), kReadable, regular ? std::max(left, {}) : std::chrono::milliseconds(-1));
    if (mEnd.IsRaised()) {
      return;
    }
    if (asked) {
      mAsked.Take();
    }
    for (; regular && due <= Clock::now(); due += mOptions.interval) {
    }
    Show();
  }
}

void Observer::Show() {
  std::vector<std::shared_ptr<DeviceTap>> taps;
  {
    const MutexLock lock(mMutex);
    taps = mTaps;
    std::erase_if(mTaps, [](const auto& each) { return each.use_count() == 2; });  // Here, and in the copy.
  }
  for (const auto& tap : taps) {
    mOptions.show(tap->TakeFigures());
  }
}

}  // namespace vel
