#include "cmd/Listener.h"

#include <netdb.h>
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

UniqueFd Listen(const std::string& text, const StopSignal& stop) {
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
  UniqueFd listener(socket(info->ai_family, info->ai_socktype | SOCK_CLOEXEC, info->ai_protocol));
  const int on = 1;
  setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!listener.IsValid() || bind(listener.Get(), info->ai_addr, info->ai_addrlen) != 0 ||
      listen(listener.Get(), 1) != 0) {
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

Listener::Listener(const std::string& address, const StopSignal& stop) : mFd(Listen(address, stop)), mStop(stop) {}

std::string Listener::Name() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  getsockname(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length);
  return NameOf(address, length);
}

UniqueFd Listener::Accept(std::string& peer) const {
  while (true) {
    if (!mStop.WaitFor(mFd.Get(), POLLIN)) {
      return UniqueFd();
    }
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    UniqueFd remote(accept4(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC));
    if (remote.IsValid()) {
      SetUpTcp(remote.Get());
      peer = NameOf(address, length);
      return remote;
    }
    mStop.WaitFor(-1, 0, kPause);  // Without descriptors left, it stays readable.
  }
}

}  // namespace vel
