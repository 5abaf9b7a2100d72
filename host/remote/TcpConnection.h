// The two ends of a TCP connection by their names.
#ifndef VIRTUSB_HOST_REMOTE_TCP_CONNECTION_H
#define VIRTUSB_HOST_REMOTE_TCP_CONNECTION_H

#include <optional>
#include <string>

#include "os/Socket.h"
#include "remote/StopSignal.h"

namespace vel {

struct HostPort {
  std::string host;
  std::string port;  // Decimal, 0 to 65535.
};

// From HOST:PORT; the host may be an IPv6 address in brackets, or empty.
std::optional<HostPort> ParseHostPort(const std::string& text);

// The addresses of this name, or a problem. Throws Interrupted once stopped.
SocketAddresses LookUp(const HostPort& address, Use use, const StopSignal& stop);

// Connects to the first of the host's addresses that answers, each within ten seconds, and sets the connection up.
// Throws std::runtime_error with a text for people, Interrupted once stopped.
UniqueFd ConnectTcp(const HostPort& address, const StopSignal& stop);

}  // namespace vel

#endif
