// Included by os/Fd.h alone.
#ifndef VIRTUSB_PLATFORM_OS_FD_TYPES_POSIX_H
#define VIRTUSB_PLATFORM_OS_FD_TYPES_POSIX_H

#include <poll.h>
#include <sys/uio.h>

#include <cerrno>

namespace vel {

using RawFd = int;
inline constexpr RawFd kNoFd = -1;

using PollFd = pollfd;
inline constexpr short kReadable = POLLIN;
inline constexpr short kWritable = POLLOUT;
inline constexpr short kOtherSideEnded = POLLRDHUP;

using IoPiece = iovec;

inline constexpr int kErrorWouldWait = EAGAIN;
inline constexpr int kErrorInterrupted = EINTR;
inline constexpr int kErrorTimedOut = ETIMEDOUT;
inline constexpr int kErrorRefused = ECONNREFUSED;
inline constexpr int kErrorAddressInUse = EADDRINUSE;

}  // namespace vel

#endif
