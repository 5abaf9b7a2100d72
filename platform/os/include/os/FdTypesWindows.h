// Included by os/Fd.h alone. The system's own headers make macros of common words, and stay out of ours.
#ifndef VIRTUSB_PLATFORM_OS_FD_TYPES_WINDOWS_H
#define VIRTUSB_PLATFORM_OS_FD_TYPES_WINDOWS_H

#include <cstddef>
#include <cstdint>

namespace vel {

using RawFd = std::uintptr_t;  // SOCKET
inline constexpr RawFd kNoFd = ~RawFd{0};

struct PollFd {
  RawFd fd;
  short events;
  short revents;
};
inline constexpr short kReadable = 1;
inline constexpr short kWritable = 2;
inline constexpr short kOtherSideEnded = 4;  // Seen, whatever was asked for.

struct IoPiece {
  void* iov_base;
  std::size_t iov_len;
};

// WSAE*.
inline constexpr int kErrorWouldWait = 10035;
inline constexpr int kErrorInterrupted = 10004;
inline constexpr int kErrorTimedOut = 10060;
inline constexpr int kErrorRefused = 10061;
inline constexpr int kErrorAddressInUse = 10048;

}  // namespace vel

#endif
