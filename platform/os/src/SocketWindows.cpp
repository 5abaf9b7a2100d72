#include "Net.h"
#include "os/Text.h"

namespace vel {
namespace {

// Options of TCP that are in Microsoft's headers, but not in all of mingw-w64's.
constexpr int kKeepIdle = 3;
constexpr int kMaxRetryTime = 5;  // Seconds.
constexpr int kKeepCount = 16;
constexpr int kKeepInterval = 17;

UniqueFd NewSocket(const SocketAddress& address, int& error) {
  StartSockets();
  UniqueFd fd(WSASocketW(address.family, SOCK_STREAM, address.protocol, nullptr, 0,
                         WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
  if (fd.IsValid()) {
    StopWaiting(fd.Get());
  } else {
    error = WSAGetLastError();
  }
  return fd;
}

template <class T>
int SetOption(RawFd socket, int level, int option, T value) {
  return setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

std::string ResolverText(int error) {
  return SystemErrorText(static_cast<unsigned long>(error));
}

UniqueFd StartConnect(const SocketAddress& to, int& error) {
  UniqueFd fd = NewSocket(to, error);
  if (fd.IsValid()) {
    const bool done = connect(fd.Get(), RawOf(to), static_cast<int>(to.length)) == 0;
    error = done ? 0 : WSAGetLastError() == WSAEWOULDBLOCK ? kConnecting : WSAGetLastError();
  }
  return fd;
}

// By select: before Windows 10 2004, WSAPoll does not tell that a connection failed.
bool AwaitConnected(RawFd socket, RawFd stop, std::chrono::milliseconds limit, int& error) {
  fd_set stopped;
  fd_set connected;
  fd_set failed;
  FD_ZERO(&stopped);
  FD_ZERO(&connected);
  FD_ZERO(&failed);
  FD_SET(stop, &stopped);
  FD_SET(socket, &connected);
  FD_SET(socket, &failed);
  timeval time{static_cast<long>(limit.count() / 1000), static_cast<long>(limit.count() % 1000 * 1000)};
  if (select(0, &stopped, &connected, &failed, &time) <= 0 || FD_ISSET(stop, &stopped)) {
    return false;
  }
  int length = sizeof error;
  getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length);
  return true;
}

UniqueFd ListenOn(const SocketAddress& address, int backlog, int& error) {
  UniqueFd listener = NewSocket(address, error);
  if (!listener.IsValid()) {
    return listener;
  }
  SetOption(listener.Get(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, BOOL{TRUE});
  if (address.family == AF_INET6) {
    SetOption(listener.Get(), IPPROTO_IPV6, IPV6_V6ONLY, DWORD{0});
  }
  if (bind(listener.Get(), RawOf(address), static_cast<int>(address.length)) != 0 ||
      listen(listener.Get(), backlog) != 0) {
    error = WSAGetLastError();
    return UniqueFd();
  }
  return listener;
}

UniqueFd Accept(RawFd listener, SocketAddress& peer) {
  int length = static_cast<int>(peer.bytes.size());
  UniqueFd accepted(accept(listener, RawOf(peer), &length));
  if (accepted.IsValid()) {
    peer.length = static_cast<std::size_t>(length);
    SetHandleInformation(reinterpret_cast<HANDLE>(accepted.Get()), HANDLE_FLAG_INHERIT, 0);
    StopWaiting(accepted.Get());
  }
  return accepted;
}

void SetUpTcp(RawFd connection) {
  constexpr DWORD kSeconds = 5;  // Of silence before a probe, and between two.
  constexpr DWORD kProbes = 2;
  SetOption(connection, IPPROTO_TCP, TCP_NODELAY, BOOL{TRUE});
  // Since Windows 10 1709, which has these by number; the older way leaves ten probes, a second apart.
  if (SetOption(connection, IPPROTO_TCP, kKeepIdle, kSeconds) == 0 &&
      SetOption(connection, IPPROTO_TCP, kKeepInterval, kSeconds) == 0 &&
      SetOption(connection, IPPROTO_TCP, kKeepCount, kProbes) == 0) {
    SetOption(connection, SOL_SOCKET, SO_KEEPALIVE, BOOL{TRUE});
  } else {
    tcp_keepalive probes{1, kSeconds * 1000, 1000};
    DWORD none = 0;
    WSAIoctl(connection, SIO_KEEPALIVE_VALS, &probes, sizeof probes, nullptr, 0, &none, nullptr, nullptr);
  }
  SetOption(connection, IPPROTO_TCP, kMaxRetryTime,
            kSeconds * (kProbes + 1));  // No probes while something is under way.
}

}  // namespace vel
