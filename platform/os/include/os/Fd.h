// What can be waited for: a file descriptor, on Windows a socket. There everything that this program waits for is one;
// what is none is carried to one and from it (os/StandardStreams.h, os/Process.h).
#ifndef VIRTUSB_PLATFORM_OS_FD_H
#define VIRTUSB_PLATFORM_OS_FD_H

#ifdef _WIN32
#include "os/FdTypesWindows.h"
#else
#include "os/FdTypesPosix.h"
#endif

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

namespace vel {

// A descriptor with one owner.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(RawFd fd) : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  ~UniqueFd();

  RawFd Get() const { return mFd; }
  bool IsValid() const { return mFd != kNoFd; }
  RawFd Release() { return std::exchange(mFd, kNoFd); }

 private:
  RawFd mFd = kNoFd;
};

// The functions below return -1 for a failure, of which this tells until the thread's next call: an errno, a WSAE* on
// Windows. Any thread.
int LastFdError();
// What such a number means, for people.
std::string FdErrorText(int error);

enum class Waiting { kWaits, kReturns };

// A pipe's reading and writing end, closed in programs that are run. Throws std::system_error when the process has no
// descriptors left.
std::pair<UniqueFd, UniqueFd> MakePipe(Waiting waiting = Waiting::kWaits);
// Puts a byte into a pipe that never waits; a full one stays as it is. Keeps errno: signal handlers may do it.
void PutByte(RawFd pipe);

// Waits, as poll does, without end for a negative limit; kNoFd is never ready. At most 64.
int Poll(std::span<PollFd> descriptors, int limitMilliseconds);
// Waits until the first is ready. False when another one is, and after `limit`; a negative one is none. True on
// failure, which the caller's next call explains.
bool WaitForFirst(std::array<PollFd, 3> descriptors, std::chrono::milliseconds limit);

// Lets writes return that would wait. The mode that it had, for RestoreMode, or -1.
int StopWaiting(RawFd fd);
void RestoreMode(RawFd fd, int mode);

// As much as there is; 0 at the end.
std::ptrdiff_t ReadPieces(RawFd fd, std::span<const IoPiece> pieces);
// As much as there is room for.
std::ptrdiff_t WritePieces(RawFd fd, std::span<const IoPiece> pieces);
// Of a socket, without waiting.
std::ptrdiff_t ReceiveNow(RawFd socket, void* to, std::size_t size);
std::ptrdiff_t PeekNow(RawFd socket, void* to, std::size_t size);
std::ptrdiff_t SendNow(RawFd socket, const void* from, std::size_t size);
// Ends both directions of a socket, for both sides.
void ShutDown(RawFd socket);

}  // namespace vel

#endif
