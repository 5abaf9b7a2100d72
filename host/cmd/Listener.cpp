#include "cmd/Listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "cmd/Devices.h"
#include "remote/TcpConnection.h"

namespace vel {
namespace {

// After an accept that failed.
constexpr std::chrono::milliseconds kPause{100};
// Connections that were not taken in yet.
constexpr int kBacklog = 16;

// Whether only this machine reaches the address.
bool IsLoopback(const sockaddr& address) {
  if (address.sa_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    return (ntohl(v4.sin_addr.s_addr) >> 24U) == IN_LOOPBACKNET;
  }
  const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  constexpr std::size_t kMapped = 12;  // Where a v4 address begins in one.
  return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[kMapped] == IN_LOOPBACKNET);
}

UniqueFd Listen(const std::string& text, const StopSignal& stop, const char* refusal) {
  const std::optional<HostPort> address = ParseHostPort(text.find(':') == std::string::npos ? ":" + text : text);
  if (!address) {
    throw UsageError("cannot listen on \"" + text + "\": give ADDR:PORT, or a port for this machine alone");
  }
  std::string problem;
  const AddrInfoHandle info =
      LookUp({address->host.empty() ? "127.0.0.1" : address->host, address->port}, AI_PASSIVE, stop, problem);
  if (info == nullptr) {
    throw std::runtime_error("cannot listen on " + text + ": " + problem +
                             " (give an address of this machine, or a port alone)");
  }
  if (refusal != nullptr && !IsLoopback(*info->ai_addr)) {
    throw UsageError("cannot listen on " + text + ", which other machines reach: " + refusal);
  }
  UniqueFd listener(socket(info->ai_family, info->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, info->ai_protocol));
  const int on = 1;
  setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!listener.IsValid() || bind(listener.Get(), info->ai_addr, info->ai_addrlen) != 0 ||
      listen(listener.Get(), kBacklog) != 0) {
    const int error = errno;
    throw std::runtime_error("cannot listen on " + text + ": " + std::strerror(error) +
                             (error == EADDRINUSE ? " (choose another port, or 0 for any)"
                                                  : " (give an address of this machine, or a port alone)"));
  }
  return listener;
}

std::string NameOf(const sockaddr_storage& address, socklen_t length) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host.data(), host.size(), port.data(),
                  port.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "?";
  }
  const std::string name = address.ss_family == AF_INET6 ? "[" + std::string(host.data()) + "]" : host.data();
  return name + ":" + port.data();
}

}  // namespace

Listener::Listener(const std::string& address, const StopSignal& stop, const char* refusal)
    : mFd(Listen(address, stop, refusal)), mStop(stop) {}

std::string Listener::Name() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  getsockname(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length);
  return NameOf(address, length);
}

UniqueFd Listener::Accept(std::string& peer) const {
  while (mStop.WaitFor(mFd.Get(), POLLIN)) {
    if (UniqueFd remote = TryAccept(peer); remote.IsValid()) {
      return remote;
    }
  }
  return UniqueFd();
}

UniqueFd Listener::TryAccept(std::string& peer) const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  UniqueFd remote(accept4(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC));
  if (remote.IsValid()) {
    SetUpTcp(remote.Get());
    peer = NameOf(address, length);
  } else {
    mStop.WaitFor(-1, 0, kPause);  // Without descriptors left, it stays readable.
  }
  return remote;
}

}  // namespace vel
