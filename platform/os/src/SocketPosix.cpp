#include <cerrno>
#include <cstring>

#include "Net.h"

namespace vel {

std::string ResolverText(int error) {
  return error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error);
}

UniqueFd StartConnect(const SocketAddress& to, int& error) {
  UniqueFd fd(socket(to.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, to.protocol));
  const bool done = fd.IsValid() && connect(fd.Get(), RawOf(to), static_cast<socklen_t>(to.length)) == 0;
  error = done ? 0 : errno == EINPROGRESS ? kConnecting : errno;
  return fd;
}

bool AwaitConnected(RawFd socket, RawFd stop, std::chrono::milliseconds limit, int& error) {
  if (!WaitForFirst({PollFd{socket, kWritable, 0}, PollFd{stop, kReadable, 0}, PollFd{kNoFd, 0, 0}}, limit)) {
    return false;
  }
  socklen_t length = sizeof error;
  getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length);
  return true;
}

UniqueFd ListenOn(const SocketAddress& address, int backlog, int& error) {
  UniqueFd listener(socket(address.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, address.protocol));
  const int on = 1;
  const int off = 0;
  if (!listener.IsValid() || setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      (address.family == AF_INET6 && setsockopt(listener.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0) ||
      bind(listener.Get(), RawOf(address), static_cast<socklen_t>(address.length)) != 0 ||
      listen(listener.Get(), backlog) != 0) {
    error = errno;
    return UniqueFd();
  }
  return listener;
}

UniqueFd Accept(RawFd listener, SocketAddress& peer) {
  socklen_t length = static_cast<socklen_t>(peer.bytes.size());
  UniqueFd accepted(accept4(listener, RawOf(peer), &length, SOCK_CLOEXEC));
  peer.length = length;
  return accepted;
}

void SetUpTcp(RawFd connection) {
  constexpr int kSeconds = 5;  // Of silence before a probe, and between two.
  constexpr int kProbes = 2;
  // Bytes in front of the link, beyond those that are on it: more make what comes behind them wait for seconds where it
  // is narrow, and help nothing where it is not.
  constexpr int kUnsent = 32 << 10;
  const auto set = [connection](int level, int option, int value) {
    setsockopt(connection, level, option, &value, sizeof value);
  };
  set(IPPROTO_TCP, TCP_NODELAY, 1);  // A small reply behind another must not wait until the first was acknowledged.
  set(IPPROTO_TCP, TCP_NOTSENT_LOWAT, kUnsent);
  set(IPPROTO_TCP, TCP_KEEPIDLE, kSeconds);
  set(IPPROTO_TCP, TCP_KEEPINTVL, kSeconds);
  set(IPPROTO_TCP, TCP_KEEPCNT, kProbes);
  set(IPPROTO_TCP, TCP_USER_TIMEOUT, kSeconds * (kProbes + 1) * 1000);  // No probes while something is under way.
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
}

}  // namespace vel
