// The two ends of a TCP connection by their names.
#ifndef VIRTUSB_HOST_REMOTE_TCP_CONNECTION_H
#define VIRTUSB_HOST_REMOTE_TCP_CONNECTION_H

#include <netdb.h>

#include <memory>
#include <optional>
#include <string>

#include "remote/FdStream.h"

namespace vel {

struct HostPort {
  std::string host;
  std::string port;  // Decimal, 0 to 65535.
};

// From HOST:PORT; the host may be an IPv6 address in brackets, or empty.
std::optional<HostPort> ParseHostPort(const std::string& text);

struct AddrInfoDeleter {
  void operator()(addrinfo* info) const { freeaddrinfo(info); }
};
using AddrInfoHandle = std::unique_ptr<addrinfo, AddrInfoDeleter>;

// The stream addresses of this name; `flags` are getaddrinfo's. Null with a problem for people when there are none.
// Throws Interrupted once stopped.
AddrInfoHandle LookUp(const HostPort& address, int flags, const StopSignal& stop, std::string& problem);

// Small packets leave at once, and a peer whose machine has gone without a word ends the connection within fifteen
// seconds, as does one that takes nothing of what is sent to it.
void SetUpTcp(int connection);

// Connects to the first of the host's addresses that answers, each within ten seconds, and sets the connection up.
// Throws std::runtime_error with a text for people, Interrupted once stopped.
UniqueFd ConnectTcp(const HostPort& address, const StopSignal& stop);

}  // namespace vel

#endif
