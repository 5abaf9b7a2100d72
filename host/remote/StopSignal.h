// A descriptor's owner, and what ends the waits for one.
#ifndef VIRTUSB_HOST_REMOTE_STOP_SIGNAL_H
#define VIRTUSB_HOST_REMOTE_STOP_SIGNAL_H

#include <poll.h>

#include <array>
#include <chrono>
#include <utility>

namespace vel {

// A file descriptor with one owner.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  ~UniqueFd();

  int Get() const { return mFd; }
  bool IsValid() const { return mFd >= 0; }
  int Release();

 private:
  int mFd = -1;
};

// A pipe's reading and writing end, closed in programs that are run; `flags` are pipe2's. Throws std::system_error when
// the process has no descriptors left.
std::pair<UniqueFd, UniqueFd> MakePipe(int flags = 0);

// Wakes those who wait for a descriptor: once raised it stays raised. Any thread; Raise also from a signal handler.
class StopSignal {
 public:
  // Throws std::system_error when the process has no descriptors left.
  StopSignal();

  void Raise() const;
  bool IsRaised() const;
  // Readable once raised.
  int Fd() const { return mRead.Get(); }
  // Waits until a descriptor is ready for `events` (of poll). False once raised, and after `limit`; a negative limit is
  // none, a negative descriptor is never ready.
  bool WaitFor(int fd, short events, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;

 private:
  UniqueFd mRead;
  UniqueFd mWrite;
};

// Waits until the first is ready. False when another one is, and after `limit`; a negative one is none. True on
// failure, which the caller's next call explains. A negative descriptor is never ready.
bool WaitForFirst(std::array<pollfd, 3> descriptors, std::chrono::milliseconds limit);

}  // namespace vel

#endif
