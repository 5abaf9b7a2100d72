#include "cmd/stream/StopWatcher.h"

#include <poll.h>

#include <array>
#include <utility>

namespace vel {

StopWatcher::StopWatcher(const StopSignal& stop, std::function<void()> onStop)
    : mThread([this, &stop, onStop = std::move(onStop)] {
        std::array<pollfd, 2> descriptors = {pollfd{stop.Fd(), POLLIN, 0}, pollfd{mEnd.Fd(), POLLIN, 0}};
        while (descriptors[0].revents == 0 && descriptors[1].revents == 0) {
          poll(descriptors.data(), descriptors.size(), -1);
        }
        if (descriptors[0].revents != 0) {
          onStop();
        }
      }) {}

StopWatcher::~StopWatcher() {
  mEnd.Raise();
  mThread.join();
}

}  // namespace vel
