#include "cmd/Listener.h"

#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "cmd/Devices.h"
#include "remote/TcpConnection.h"

namespace vel {
namespace {

UniqueFd Listen(const std::string& text) {
  const std::optional<HostPort> address = ParseHostPort(text.find(':') == std::string::npos ? ":" + text : text);
  if (!address) {
    throw UsageError("cannot listen on \"" + text + "\": give ADDR:PORT, or a port for this machine alone");
  }
  std::string problem;
  const AddrInfoHandle info =
      LookUp({address->host.empty() ? "127.0.0.1" : address->host, address->port}, AI_PASSIVE, problem);
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

Listener::Listener(const std::string& address) : mFd(Listen(address)) {}

std::string Listener::Name() const {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  getsockname(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length);
  return NameOf(address, length);
}

UniqueFd Listener::Accept(const StopSignal& stop, std::string& peer) const {
  while (true) {
    std::array<pollfd, 2> descriptors = {pollfd{mFd.Get(), POLLIN, 0}, pollfd{stop.Fd(), POLLIN, 0}};
    if (poll(descriptors.data(), descriptors.size(), -1) > 0) {
      if (descriptors[1].revents != 0) {
        return UniqueFd();
      }
      sockaddr_storage address{};
      socklen_t length = sizeof address;
      UniqueFd remote(accept4(mFd.Get(), reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC));
      if (remote.IsValid()) {
        const int on = 1;  // A remote side whose machine went away is noticed in the end.
        setsockopt(remote.Get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
        // A small reply behind another must not wait until the first was acknowledged.
        setsockopt(remote.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        peer = NameOf(address, length);
        return remote;
      }
    }
  }
}

}  // namespace vel
