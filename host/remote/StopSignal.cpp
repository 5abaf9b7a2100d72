#include "remote/StopSignal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <tuple>

namespace vel {

bool WaitForFirst(std::array<pollfd, 3> descriptors, std::chrono::milliseconds limit) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + limit;
  while (true) {
    const auto left = std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()), {});
    const int ready =
        poll(descriptors.data(), descriptors.size(), limit.count() < 0 ? -1 : static_cast<int>(left.count()));
    if (ready >= 0 || errno != EINTR) {
      return ready != 0 && descriptors[1].revents == 0 && descriptors[2].revents == 0;
    }
  }
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    if (mFd >= 0) {
      close(mFd);
    }
    mFd = other.Release();
  }
  return *this;
}

UniqueFd::~UniqueFd() {
  if (mFd >= 0) {
    close(mFd);
  }
}

int UniqueFd::Release() {
  return std::exchange(mFd, -1);
}

std::pair<UniqueFd, UniqueFd> MakePipe(int flags) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC | flags) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

StopSignal::StopSignal() {
  std::tie(mRead, mWrite) = MakePipe(O_NONBLOCK);
}

void StopSignal::Raise() const {
  const int saved = errno;
  const char byte = 0;
  static_cast<void>(!write(mWrite.Get(), &byte, 1));  // A full pipe is raised already.
  errno = saved;
}

bool StopSignal::IsRaised() const {
  pollfd descriptor{mRead.Get(), POLLIN, 0};
  return poll(&descriptor, 1, 0) > 0;
}

bool StopSignal::WaitFor(int fd, short events, std::chrono::milliseconds limit) const {
  return WaitForFirst({pollfd{fd, events, 0}, pollfd{Fd(), POLLIN, 0}, pollfd{-1, 0, 0}}, limit);
}

}  // namespace vel
