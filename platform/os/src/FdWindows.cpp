#include "NetWindows.h"
#include "os/Fd.h"
#include "os/Text.h"

#include <algorithm>
#include <chrono>
#include <system_error>

namespace vel {

static_assert(sizeof(RawFd) == sizeof(SOCKET) && kNoFd == INVALID_SOCKET);
static_assert(kErrorWouldWait == WSAEWOULDBLOCK && kErrorInterrupted == WSAEINTR && kErrorTimedOut == WSAETIMEDOUT &&
              kErrorRefused == WSAECONNREFUSED && kErrorAddressInUse == WSAEADDRINUSE);

namespace {

struct ErrorText {
  int error;
  const char* text;
};

// What people meet, in the words that POSIX systems have for it. Windows' own are long, and in its language.
constexpr std::array kErrors = {
    ErrorText{WSAEACCES, "Permission denied"},
    ErrorText{WSAEADDRINUSE, "Address already in use"},
    ErrorText{WSAEADDRNOTAVAIL, "Cannot assign requested address"},
    ErrorText{WSAECONNABORTED, "Software caused connection abort"},
    ErrorText{WSAECONNREFUSED, "Connection refused"},
    ErrorText{WSAECONNRESET, "Connection reset by peer"},
    ErrorText{WSAEHOSTUNREACH, "No route to host"},
    ErrorText{WSAENETUNREACH, "Network is unreachable"},
    ErrorText{WSAETIMEDOUT, "Connection timed out"},
};

constexpr std::size_t kMaxDescriptors = 64;
constexpr std::size_t kMaxPieces = 64;

short EventsFor(short wanted) {
  return static_cast<short>(((wanted & kReadable) != 0 ? POLLRDNORM : 0) |
                            ((wanted & kWritable) != 0 ? POLLWRNORM : 0));
}

short SeenOf(short events) {
  return static_cast<short>(((events & POLLRDNORM) != 0 ? kReadable : 0) |
                            ((events & POLLWRNORM) != 0 ? kWritable : 0) |
                            ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? kOtherSideEnded : 0));
}

class Buffers {
 public:
  explicit Buffers(std::span<const IoPiece> pieces) : mCount(std::min(pieces.size(), kMaxPieces)) {
    constexpr std::size_t kMost = 1U << 30U;
    for (std::size_t i = 0; i < mCount; ++i) {
      mBuffers[i] = {static_cast<ULONG>(std::min(pieces[i].iov_len, kMost)), static_cast<char*>(pieces[i].iov_base)};
      if (pieces[i].iov_len > kMost) {  // What is behind it must not follow at once.
        mCount = i + 1;
      }
    }
  }
  WSABUF* Get() { return mBuffers.data(); }
  DWORD Count() const { return static_cast<DWORD>(mCount); }

 private:
  std::size_t mCount;
  std::array<WSABUF, kMaxPieces> mBuffers;
};

[[noreturn]] void ThrowNoPipe() {
  throw std::system_error(std::error_code(WSAGetLastError(), std::system_category()), "pipe");
}

UniqueFd LoopbackSocket() {
  UniqueFd fd(
      WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
  if (!fd.IsValid()) {
    ThrowNoPipe();
  }
  return fd;
}

// A connection that is half closed: the other side still reads. One that was aborted says so.
bool OnlyItsOutputHasEnded(RawFd fd) {
  char byte = 0;
  return recv(fd, &byte, 1, MSG_PEEK) >= 0 || WSAGetLastError() == WSAEWOULDBLOCK;
}

// WSAPoll, which tells of the other side's end at once whatever it is asked. Who asks for room alone is not told as
// long as the other side reads: `passedOver`.
int PollOnce(std::span<PollFd> descriptors, int limitMilliseconds, bool& passedOver) {
  std::array<WSAPOLLFD, kMaxDescriptors> asked{};
  ULONG count = 0;  // Of those that are there: the system takes no others.
  for (const PollFd& each : descriptors) {
    if (each.fd != kNoFd) {
      asked.at(count++) = {each.fd, EventsFor(each.events), 0};
    }
  }
  int ready = 0;
  if (count > 0) {
    ready = WSAPoll(asked.data(), count, limitMilliseconds);
  } else {
    Sleep(limitMilliseconds < 0 ? INFINITE : static_cast<DWORD>(limitMilliseconds));
  }
  const WSAPOLLFD* answer = asked.data();
  for (PollFd& each : descriptors) {
    each.revents = each.fd != kNoFd && ready > 0 ? SeenOf((answer++)->revents) : short{0};
    if (each.events == kWritable && each.revents == kOtherSideEnded && OnlyItsOutputHasEnded(each.fd)) {
      each.revents = 0;
      passedOver = true;
      --ready;
    }
  }
  return ready;
}

// Waits as WSAPoll would, were it not for those ends; a moment at most, since nothing tells here of one that is
// aborted.
void AwaitRoom(std::span<const PollFd> descriptors, int limitMilliseconds) {
  constexpr int kMoment = 100;
  fd_set readable;
  fd_set writable;
  FD_ZERO(&readable);
  FD_ZERO(&writable);
  for (const PollFd& each : descriptors) {
    if (each.fd != kNoFd && (each.events & kReadable) != 0) {
      FD_SET(each.fd, &readable);
    }
    if (each.fd != kNoFd && (each.events & kWritable) != 0) {
      FD_SET(each.fd, &writable);
    }
  }
  timeval time{0, 1000 * (limitMilliseconds < 0 ? kMoment : std::min(kMoment, limitMilliseconds))};
  select(0, &readable, &writable, nullptr, &time);
}

}  // namespace

void StartSockets() {
  static const int started = [] {
    WSADATA data{};
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  if (started != 0) {
    throw std::system_error(std::error_code(started, std::system_category()), "cannot use sockets");
  }
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    if (IsValid()) {
      closesocket(mFd);
    }
    mFd = other.Release();
  }
  return *this;
}

UniqueFd::~UniqueFd() {
  if (IsValid()) {
    closesocket(mFd);
  }
}

int LastFdError() {
  return WSAGetLastError();
}

std::string FdErrorText(int error) {
  const auto* const found = std::ranges::find(kErrors, error, &ErrorText::error);
  return found != kErrors.end() ? found->text : SystemErrorText(static_cast<DWORD>(error));
}

// Two ends of a connection of this process with itself. Whoever else on this machine connects to the listener in that
// moment is told by its address, and sent away.
std::pair<UniqueFd, UniqueFd> MakePipe(Waiting waiting) {
  StartSockets();
  const UniqueFd listener = LoopbackSocket();
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int length = sizeof address;
  const BOOL alone = TRUE;
  setsockopt(listener.Get(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&alone), sizeof alone);
  UniqueFd writer = LoopbackSocket();
  sockaddr_in own{};
  if (bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener.Get(), 1) != 0 ||
      getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
      connect(writer.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(writer.Get(), reinterpret_cast<sockaddr*>(&own), &length) != 0) {
    ThrowNoPipe();
  }
  while (true) {
    sockaddr_in peer{};
    length = sizeof peer;
    UniqueFd reader(accept(listener.Get(), reinterpret_cast<sockaddr*>(&peer), &length));
    if (!reader.IsValid()) {
      ThrowNoPipe();
    }
    if (peer.sin_port == own.sin_port && peer.sin_addr.s_addr == own.sin_addr.s_addr) {
      SetHandleInformation(reinterpret_cast<HANDLE>(reader.Get()), HANDLE_FLAG_INHERIT, 0);
      const BOOL atOnce = TRUE;
      for (const RawFd end : {reader.Get(), writer.Get()}) {
        setsockopt(end, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&atOnce), sizeof atOnce);
        if (waiting == Waiting::kReturns) {
          StopWaiting(end);
        }
      }
      return {std::move(reader), std::move(writer)};
    }
  }
}

void PutByte(RawFd pipe) {
  const int saved = WSAGetLastError();
  send(pipe, "", 1, 0);
  WSASetLastError(saved);
}

int Poll(std::span<PollFd> descriptors, int limitMilliseconds) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limitMilliseconds);
  for (int left = limitMilliseconds;;) {
    bool passedOver = false;
    if (const int ready = PollOnce(descriptors, left, passedOver); ready != 0 || !passedOver || left == 0) {
      return ready;
    }
    AwaitRoom(descriptors, left);
    if (limitMilliseconds >= 0) {
      left = static_cast<int>(
          std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count(), 0LL));
    }
  }
}

int StopWaiting(RawFd fd) {
  u_long on = 1;
  ioctlsocket(fd, static_cast<long>(FIONBIO), &on);
  return -1;  // Nothing tells what it was.
}

void RestoreMode(RawFd /*fd*/, int /*mode*/) {}

std::ptrdiff_t ReadPieces(RawFd fd, std::span<const IoPiece> pieces) {
  Buffers buffers(pieces);
  DWORD count = 0;
  DWORD flags = 0;
  return WSARecv(fd, buffers.Get(), buffers.Count(), &count, &flags, nullptr, nullptr) == 0 ? std::ptrdiff_t{count}
                                                                                            : -1;
}

std::ptrdiff_t WritePieces(RawFd fd, std::span<const IoPiece> pieces) {
  Buffers buffers(pieces);
  DWORD count = 0;
  return WSASend(fd, buffers.Get(), buffers.Count(), &count, 0, nullptr, nullptr) == 0 ? std::ptrdiff_t{count} : -1;
}

// Sockets never wait here: Accept and StartConnect have made them so.

std::ptrdiff_t ReceiveNow(RawFd socket, void* to, std::size_t size) {
  return recv(socket, static_cast<char*>(to), static_cast<int>(size), 0);
}

std::ptrdiff_t PeekNow(RawFd socket, void* to, std::size_t size) {
  return recv(socket, static_cast<char*>(to), static_cast<int>(size), MSG_PEEK);
}

std::ptrdiff_t SendNow(RawFd socket, const void* from, std::size_t size) {
  return send(socket, static_cast<const char*>(from), static_cast<int>(size), 0);
}

void ShutDown(RawFd socket) {
  shutdown(socket, SD_BOTH);
}

}  // namespace vel
