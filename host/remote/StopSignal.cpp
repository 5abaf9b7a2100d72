#include "remote/StopSignal.h"

#include <tuple>

namespace vel {

StopSignal::StopSignal() {
  std::tie(mRead, mWrite) = MakePipe(Waiting::kReturns);
}

void StopSignal::Raise() const {
  PutByte(mWrite.Get());  // A full pipe is raised already.
}

bool StopSignal::IsRaised() const {
  PollFd descriptor{mRead.Get(), kReadable, 0};
  return Poll({&descriptor, 1}, 0) > 0;
}

bool StopSignal::WaitFor(RawFd fd, short events, std::chrono::milliseconds limit) const {
  return WaitForFirst({PollFd{fd, events, 0}, PollFd{Fd(), kReadable, 0}, PollFd{kNoFd, 0, 0}}, limit);
}

}  // namespace vel
