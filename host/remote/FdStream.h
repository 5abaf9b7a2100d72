#ifndef VIRTUSB_HOST_REMOTE_FD_STREAM_H
#define VIRTUSB_HOST_REMOTE_FD_STREAM_H

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "vel/Mutex.h"

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

// For WriteAll.
inline iovec PieceOf(std::span<const std::uint8_t> bytes) {
  return {const_cast<std::uint8_t*>(bytes.data()), bytes.size()};  // Only read from.
}

// The two directions of a byte stream, on descriptors that are not owned. A stop signal ends every wait. The process
// has to ignore SIGPIPE: a write that nobody reads is a result here.
class FdStream {
 public:
  enum class Result { kOk, kEnd, kStopped, kFailed };

  FdStream(int in, int out, const StopSignal& stop);
  FdStream(const FdStream&) = delete;
  FdStream& operator=(const FdStream&) = delete;
  ~FdStream();  // Gives the output its blocking mode back.

  // Waits for bytes; `count` says how many came. One thread.
  Result Read(std::span<std::uint8_t> buffer, std::size_t& count);
  // The same into several pieces, one behind the other.
  Result Read(std::span<const iovec> pieces, std::size_t& count);
  // Writes everything, in one piece among several writers. After a failure nothing more is written. Any thread.
  Result WriteAll(std::span<const std::uint8_t> bytes) VEL_EXCLUDES(mWriteMutex);
  // The same of several pieces, one behind the other; `pieces` is used up.
  Result WriteAll(std::span<iovec> pieces) VEL_EXCLUDES(mWriteMutex);
  // Ends the waits of this stream, now and later, as the stop signal does. Any thread.
  void Abort() { mAbort.Raise(); }
  // Waits until another descriptor is ready for `events` (of poll). False when stopped, and after `limit`; a negative
  // one is none. Any thread.
  bool WaitFor(int fd, short events, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;
  // The same without a limit, and false when the other side ends its output meanwhile, whatever of it is still unread.
  bool WaitWhileOpen(int fd, short events) const;

 private:
  const int mIn;
  const int mOut;
  const StopSignal& mStop;
  const StopSignal mAbort;
  int mOutFlags = -1;
  Mutex mWriteMutex;
  bool mBroken VEL_GUARDED_BY(mWriteMutex) = false;
};

}  // namespace vel

#endif
