#include "remote/TcpConnection.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <utility>

#include "os/DetachedThread.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

constexpr std::chrono::seconds kConnectTime{10};

// One question to the resolver, which answers when it likes.
struct Query {
  Query(HostPort address, Use forWhat) : of(std::move(address)), use(forWhat) {}

  const HostPort of;
  const Use use;
  const StopSignal answered;
  std::atomic<bool> isWhole{false};  // Orders the answer before its reader; a pipe alone promises that to nobody.
  SocketAddresses answer;
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

SocketAddresses LookUp(const HostPort& address, Use use, const StopSignal& stop) {
  SocketAddresses numeric = Resolve(address.host, address.port, use, Resolving::kNumbers);
  if (!numeric.found.empty()) {
    return numeric;
  }
  // Nothing interrupts the resolver: one that has not answered then is left alone with its question.
  const auto query = std::make_shared<Query>(address, use);
  StartDetached([query] {
    query->answer = Resolve(query->of.host, query->of.port, query->use, Resolving::kNames);
    query->isWhole.store(true, std::memory_order_release);
    query->answered.Raise();
  });
  if (!stop.WaitFor(query->answered.Fd(), kReadable) || !query->isWhole.load(std::memory_order_acquire)) {
    throw Interrupted();
  }
  return std::move(query->answer);
}

UniqueFd ConnectTcp(const HostPort& address, const StopSignal& stop) {
  const SocketAddresses to = LookUp(address, Use::kToConnect, stop);
  if (to.found.empty()) {
    throw std::runtime_error(to.problem + " (check the host's name)");
  }
  int error = 0;
  for (const SocketAddress& each : to.found) {
    UniqueFd fd = StartConnect(each, error);
    if (error == kConnecting && !AwaitConnected(fd.Get(), stop.Fd(), kConnectTime, error)) {
      if (stop.IsRaised()) {
        throw Interrupted();
      }
      error = kErrorTimedOut;
    }
    if (error == 0) {
      SetUpTcp(fd.Get());
      return fd;
    }
  }
  throw std::runtime_error(FdErrorText(error) +
                           (error == kErrorRefused ? " (is \"virtusb serve DEVICE --listen ADDR:PORT\" running there?)"
                                                   : " (check the address, and that no firewall is in between)"));
}

}  // namespace vel
