#include "cmd/serve/Listener.h"

#include <chrono>
#include <optional>
#include <stdexcept>

#include "cmd/console/UsageError.h"
#include "remote/TcpConnection.h"

namespace vel {
namespace {

// After an accept that failed.
constexpr std::chrono::milliseconds kPause{100};
// Connections that were not taken in yet.
constexpr int kBacklog = 16;

UniqueFd Listen(const std::string& text, const StopSignal& stop, const char* refusal) {
  const std::optional<HostPort> address = ParseHostPort(text.find(':') == std::string::npos ? ":" + text : text);
  if (!address) {
    throw UsageError("cannot listen on \"" + text + "\": give ADDR:PORT, or a port for this machine alone");
  }
  const SocketAddresses addresses =
      LookUp({address->host.empty() ? "127.0.0.1" : address->host, address->port}, Use::kToListen, stop);
  if (addresses.found.empty()) {
    throw std::runtime_error("cannot listen on " + text + ": " + addresses.problem +
                             " (give an address of this machine, or a port alone)");
  }
  if (refusal != nullptr && !addresses.found.front().IsLoopback()) {
    throw UsageError("cannot listen on " + text + ", which other machines reach: " + refusal);
  }
  int error = 0;
  UniqueFd listener = ListenOn(addresses.found.front(), kBacklog, error);
  if (!listener.IsValid()) {
    throw std::runtime_error("cannot listen on " + text + ": " + FdErrorText(error) +
                             (error == kErrorAddressInUse ? " (choose another port, or 0 for any)"
                                                          : " (give an address of this machine, or a port alone)"));
  }
  return listener;
}

}  // namespace

Listener::Listener(const std::string& address, const StopSignal& stop, const char* refusal)
    : mFd(Listen(address, stop, refusal)), mStop(stop) {}

std::string Listener::Name() const {
  return LocalAddressOf(mFd.Get()).Name();
}

UniqueFd Listener::Accept(std::string& peer) const {
  while (mStop.WaitFor(mFd.Get(), kReadable)) {
    if (UniqueFd remote = TryAccept(peer); remote.IsValid()) {
      return remote;
    }
  }
  return UniqueFd();
}

UniqueFd Listener::TryAccept(std::string& peer) const {
  SocketAddress address;
  UniqueFd remote = vel::Accept(mFd.Get(), address);
  if (remote.IsValid()) {
    SetUpTcp(remote.Get());
    peer = address.Name();
  } else {
    mStop.WaitFor(kNoFd, 0, kPause);  // Without descriptors left, it stays readable.
  }
  return remote;
}

}  // namespace vel
