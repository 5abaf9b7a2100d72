#include "os/Fd.h"

#include <algorithm>

namespace vel {

bool WaitForFirst(std::array<PollFd, 3> descriptors, std::chrono::milliseconds limit) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + limit;
  while (true) {
    const auto left = std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()), {});
    const int ready = Poll(descriptors, limit.count() < 0 ? -1 : static_cast<int>(left.count()));
    if (ready >= 0 || LastFdError() != kErrorInterrupted) {
      return ready != 0 && descriptors[1].revents == 0 && descriptors[2].revents == 0;
    }
  }
}

}  // namespace vel
