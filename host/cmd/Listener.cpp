#include "cmd/Listener.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "cmd/Devices.h"

namespace vel {
namespace {

struct AddrInfoDeleter {
  void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

struct ListenAddress {
  std::string host = "127.0.0.1";
  std::string port;
};

ListenAddress ParseListen(const std::string& text) {
  ListenAddress address;
  const std::size_t colon = text.rfind(':');
  address.port = colon == std::string::npos ? text : text.substr(colon + 1);
  if (colon != std::string::npos && colon > 0) {
    address.host = text.substr(0, colon);
    if (address.host.size() > 2 && address.host.front() == '[' && address.host.back() == ']') {
      address.host = address.host.substr(1, address.host.size() - 2);
    }
  }
  constexpr unsigned long kMaxPort = 65535;
  if (address.port.empty() || address.port.size() > 5 ||
      address.port.find_first_not_of("0123456789") != std::string::npos || std::stoul(address.port) > kMaxPort) {
    throw UsageError("cannot listen on \"" + text + "\": give ADDR:PORT, or a port for this machine alone");
  }
  return address;
}

UniqueFd Listen(const std::string& text) {
  const ListenAddress address = ParseListen(text);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* raw = nullptr;
  if (const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &raw); error != 0) {
    throw std::runtime_error("cannot listen on " + text + ": " + gai_strerror(error) +
                             " (give an address of this machine, or a port alone)");
  }
  const std::unique_ptr<addrinfo, AddrInfoDeleter> info(raw);
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
        peer = NameOf(address, length);
        return remote;
      }
    }
  }
}

}  // namespace vel
