#include "os/Socket.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "Net.h"

namespace vel {
namespace {

struct AddrInfoDeleter {
  void operator()(addrinfo* info) const { freeaddrinfo(info); }
};

constexpr unsigned kLoopbackNet = 127;  // The first byte of such a v4 address.
constexpr std::size_t kMapped = 12;     // Where a v4 address begins in a v6 one.

}  // namespace

std::string SocketAddress::Name() const {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (getnameinfo(RawOf(*this), static_cast<socklen_t>(length), host.data(), host.size(), port.data(), port.size(),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "?";
  }
  const std::string name = RawOf(*this)->sa_family == AF_INET6 ? "[" + std::string(host.data()) + "]" : host.data();
  return name + ":" + port.data();
}

bool SocketAddress::IsLoopback() const {
  if (RawOf(*this)->sa_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, bytes.data(), sizeof v4);
    return (ntohl(v4.sin_addr.s_addr) >> 24U) == kLoopbackNet;
  }
  sockaddr_in6 v6{};
  std::memcpy(&v6, bytes.data(), sizeof v6);
  return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) ||
         (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) && v6.sin6_addr.s6_addr[kMapped] == kLoopbackNet);
}

SocketAddresses Resolve(const std::string& host, const std::string& port, Use use, Resolving resolving) {
  StartSockets();
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | (use == Use::kToListen ? AI_PASSIVE : 0) |
                   (resolving == Resolving::kNumbers ? AI_NUMERICHOST : 0);
  addrinfo* list = nullptr;
  const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
  SocketAddresses addresses;
  if (error != 0) {
    addresses.problem = ResolverText(error);
    return addresses;
  }
  const std::unique_ptr<addrinfo, AddrInfoDeleter> freed(list);
  for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
    SocketAddress& address = addresses.found.emplace_back();
    address.family = each->ai_family;
    address.protocol = each->ai_protocol;
    address.length = std::min<std::size_t>(each->ai_addrlen, address.bytes.size());
    std::memcpy(address.bytes.data(), each->ai_addr, address.length);
  }
  return addresses;
}

bool IsNumericAddress(const std::string& host) {
  std::array<std::uint8_t, sizeof(in6_addr)> bytes{};
  return inet_pton(AF_INET, host.c_str(), bytes.data()) == 1 || inet_pton(AF_INET6, host.c_str(), bytes.data()) == 1;
}

SocketAddress LocalAddressOf(RawFd socket) {
  SocketAddress address;
  socklen_t length = static_cast<socklen_t>(address.bytes.size());
  getsockname(socket, RawOf(address), &length);
  address.length = static_cast<std::size_t>(length);
  address.family = RawOf(address)->sa_family;
  return address;
}

}  // namespace vel
