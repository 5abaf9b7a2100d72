#include "remote/StopWatcher.h"

#include <utility>

namespace vel {

StopWatcher::StopWatcher(const StopSignal& stop, std::function<void()> onStop, std::chrono::milliseconds grace)
    : mThread([this, &stop, grace, onStop = std::move(onStop)] {
        if (mEnd.WaitFor(stop.Fd(), kReadable)) {
          mEnd.WaitFor(kNoFd, 0, grace);
          if (!mEnd.IsRaised()) {
            onStop();
          }
        }
      }) {}

StopWatcher::~StopWatcher() {
  mEnd.Raise();
  mThread.join();
}

}  // namespace vel
