#include "remote/TcpConnection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "remote/StopWatcher.h"

namespace vel {
namespace {

constexpr std::chrono::seconds kConnectTime{10};

// 0, or what went wrong as errno has it.
int Connect(int fd, const addrinfo& to, const StopSignal& stop) {
  if (connect(fd, to.ai_addr, to.ai_addrlen) == 0) {
    return 0;
  }
  if (errno != EINPROGRESS) {
    return errno;
  }
  int error = ETIMEDOUT;
  socklen_t length = sizeof error;
  if (stop.WaitFor(fd, POLLOUT, kConnectTime)) {
    getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  } else if (stop.IsRaised()) {
    throw Interrupted();
  }
  return error;
}

// One question to the resolver, which answers when it likes.
struct Query {
  explicit Query(const HostPort& address) : of(address) {}
  void Ask(int flags) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    error = getaddrinfo(of.host.c_str(), of.port.c_str(), &hints, &list);
    problem = error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error);
    found = AddrInfoHandle(error == 0 ? list : nullptr);
  }

  const HostPort of;
  const StopSignal answered;
  std::atomic<bool> isWhole{false};  // Orders the answer before its reader; a pipe alone promises that to nobody.
  int error = 0;
  std::string problem;
  AddrInfoHandle found;
};

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

AddrInfoHandle LookUp(const HostPort& address, int flags, const StopSignal& stop, std::string& problem) {
  const auto query = std::make_shared<Query>(address);
  query->Ask(flags | AI_NUMERICHOST);
  if (query->error != 0) {
    // Nothing interrupts the resolver: one that has not answered then is left alone with its question.
    std::thread([query, flags] {
      query->Ask(flags);
      query->isWhole.store(true, std::memory_order_release);
      query->answered.Raise();
    }).detach();
    if (!stop.WaitFor(query->answered.Fd(), POLLIN) || !query->isWhole.load(std::memory_order_acquire)) {
      throw Interrupted();
    }
  }
  problem = query->problem;
  return std::move(query->found);
}

void SetUpTcp(int connection) {
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

UniqueFd ConnectTcp(const HostPort& address, const StopSignal& stop) {
  std::string problem;
  const AddrInfoHandle info = LookUp(address, 0, stop, problem);
  if (info == nullptr) {
    throw std::runtime_error(problem + " (check the host's name)");
  }
  int error = 0;
  for (const addrinfo* to = info.get(); to != nullptr; to = to->ai_next) {
    UniqueFd fd(socket(to->ai_family, to->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, to->ai_protocol));
    error = fd.IsValid() ? Connect(fd.Get(), *to, stop) : errno;
    if (error == 0) {
      SetUpTcp(fd.Get());
      return fd;
    }
  }
  throw std::runtime_error(std::string(std::strerror(error)) +
                           (error == ECONNREFUSED ? " (is \"virtusb serve DEVICE --listen ADDR:PORT\" running there?)"
                                                  : " (check the address, and that no firewall is in between)"));
}

}  // namespace vel
