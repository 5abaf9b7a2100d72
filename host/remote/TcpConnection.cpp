#include "remote/TcpConnection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace vel {
namespace {

constexpr int kConnectMs = 10000;

// 0, or what went wrong as errno has it.
int Connect(int fd, const addrinfo& to) {
  if (connect(fd, to.ai_addr, to.ai_addrlen) == 0) {
    return 0;
  }
  if (errno != EINPROGRESS) {
    return errno;
  }
  pollfd waiting{fd, POLLOUT, 0};
  int ready = 0;
  while ((ready = poll(&waiting, 1, kConnectMs)) < 0 && errno == EINTR) {
  }
  int error = ETIMEDOUT;
  socklen_t length = sizeof error;
  if (ready > 0) {
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  }
  return error;
}

}  // namespace

std::optional<HostPort> ParseHostPort(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) {
    return std::nullopt;
  }
  HostPort address{text.substr(0, colon), text.substr(colon + 1)};
  std::string& host = address.host;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  constexpr unsigned long kMaxPort = 65535;
  if (address.port.empty() || address.port.size() > 5 ||
      address.port.find_first_not_of("0123456789") != std::string::npos || std::stoul(address.port) > kMaxPort) {
    return std::nullopt;
  }
  return address;
}

AddrInfoHandle LookUp(const HostPort& address, int flags, std::string& problem) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
  if (error != 0) {
    problem = error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error);
  }
  return AddrInfoHandle(error == 0 ? found : nullptr);
}

UniqueFd ConnectTcp(const HostPort& address) {
  std::string problem;
  const AddrInfoHandle info = LookUp(address, 0, problem);
  if (info == nullptr) {
    throw std::runtime_error(problem + " (check the host's name)");
  }
  int error = 0;
  for (const addrinfo* to = info.get(); to != nullptr; to = to->ai_next) {
    UniqueFd fd(socket(to->ai_family, to->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, to->ai_protocol));
    error = fd.IsValid() ? Connect(fd.Get(), *to) : errno;
    if (error == 0) {
      const int on = 1;
      setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      setsockopt(fd.Get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
      return fd;
    }
  }
  throw std::runtime_error(std::string(std::strerror(error)) +
                           (error == ECONNREFUSED ? " (is \"virtusb serve DEVICE --listen ADDR:PORT\" running there?)"
                                                  : " (check the address, and that no firewall is in between)"));
}

}  // namespace vel
