#include "remote/FdStream.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <tuple>
#include <utility>

namespace vel {
namespace {

// What is left of the pieces once `written` bytes of them are out.
std::span<iovec> Behind(std::span<iovec> pieces, std::size_t written) {
  while (!pieces.empty() && written >= pieces.front().iov_len) {
    written -= pieces.front().iov_len;
    pieces = pieces.subspan(1);
  }
  if (!pieces.empty()) {
    pieces.front().iov_base = static_cast<std::uint8_t*>(pieces.front().iov_base) + written;
    pieces.front().iov_len -= written;
  }
  return pieces;
}

// Waits until the first is ready. False when another one is, and after `limit`; a negative one is none. True on
// failure, which the caller's next call explains.
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

}  // namespace

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

FdStream::FdStream(int in, int out, const StopSignal& stop) : mIn(in), mOut(out), mStop(stop) {
  // A write that fills the pipe must return, so that a stop can end the wait for room.
  mOutFlags = fcntl(mOut, F_GETFL);
  if (mOutFlags >= 0) {
    fcntl(mOut, F_SETFL, mOutFlags | O_NONBLOCK);
  }
}

FdStream::~FdStream() {
  if (mOutFlags >= 0) {
    fcntl(mOut, F_SETFL, mOutFlags);
  }
}

bool FdStream::WaitFor(int fd, short events, std::chrono::milliseconds limit) const {
  return WaitForFirst({pollfd{fd, events, 0}, pollfd{mStop.Fd(), POLLIN, 0}, pollfd{mAbort.Fd(), POLLIN, 0}}, limit);
}

bool FdStream::WaitWhileOpen(int fd, short events) const {
  return WaitForFirst({pollfd{fd, events, 0}, pollfd{mStop.Fd(), POLLIN, 0}, pollfd{mIn, POLLRDHUP, 0}},
                      std::chrono::milliseconds(-1));
}

FdStream::Result FdStream::Read(std::span<std::uint8_t> buffer, std::size_t& count) {
  const iovec piece{buffer.data(), buffer.size()};
  return Read({&piece, 1}, count);
}

FdStream::Result FdStream::Read(std::span<const iovec> pieces, std::size_t& count) {
  while (true) {
    if (!WaitFor(mIn, POLLIN)) {
      return Result::kStopped;
    }
    const ssize_t n = readv(mIn, pieces.data(), static_cast<int>(pieces.size()));
    if (n > 0) {
      count = static_cast<std::size_t>(n);
      return Result::kOk;
    }
    if (n == 0) {
      return Result::kEnd;
    }
    if (errno != EINTR && errno != EAGAIN) {
      return Result::kFailed;
    }
  }
}

FdStream::Result FdStream::WriteAll(std::span<const std::uint8_t> bytes) {
  iovec piece = PieceOf(bytes);
  return WriteAll({&piece, 1});
}

FdStream::Result FdStream::WriteAll(std::span<iovec> pieces) {
  const MutexLock lock(mWriteMutex);
  while (!pieces.empty() && !mBroken) {
    const ssize_t n = writev(mOut, pieces.data(), static_cast<int>(std::min<std::size_t>(pieces.size(), IOV_MAX)));
    if (n >= 0) {
      pieces = Behind(pieces, static_cast<std::size_t>(n));
    } else if (errno == EAGAIN) {
      if (!WaitFor(mOut, POLLOUT)) {
        mBroken = true;  // Half a packet may be out: nothing can follow it.
        return Result::kStopped;
      }
    } else if (errno != EINTR) {
      mBroken = true;
    }
  }
  return mBroken ? Result::kFailed : Result::kOk;
}

}  // namespace vel
