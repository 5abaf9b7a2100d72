// Stream sockets by their addresses.
#ifndef VIRTUSB_PLATFORM_OS_SOCKET_H
#define VIRTUSB_PLATFORM_OS_SOCKET_H

#include <array>
#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "os/Fd.h"

namespace vel {

// A sockaddr, of any family.
struct SocketAddress {
  // ADDRESS:PORT in digits, an IPv6 address in brackets; "?" for none.
  std::string Name() const;
  // Whether only this machine reaches it.
  bool IsLoopback() const;

  int family = 0;
  int protocol = 0;
  std::size_t length = 0;
  alignas(8) std::array<std::byte, 128> bytes{};
};

struct SocketAddresses {
  std::vector<SocketAddress> found;
  std::string problem;  // For people, when there are none.
};

enum class Resolving { kNumbers, kNames };
enum class Use { kToConnect, kToListen };
// The addresses of a host, which is a name or digits, in the order to try them in. Names take the resolver's time,
// which nothing ends. The port is decimal.
SocketAddresses Resolve(const std::string& host, const std::string& port, Use use, Resolving resolving);
// Whether a certificate names the host by its address.
bool IsNumericAddress(const std::string& host);

// A socket on its way to being connected, which never waits: `error` is 0 when it is, kConnecting when it will be. Not
// valid when there is no socket to be had.
UniqueFd StartConnect(const SocketAddress& to, int& error);
inline constexpr int kConnecting = -1;
// Waits for that. False when `stop` is readable and after `limit`; otherwise `error` says how it went.
bool AwaitConnected(RawFd socket, RawFd stop, std::chrono::milliseconds limit, int& error);

// A socket that takes connections in, of `backlog` that wait, at an address that it shares with nobody. All addresses
// of IPv6 are those of IPv4, too. Not valid on failure: `error`.
UniqueFd ListenOn(const SocketAddress& address, int backlog, int& error);
// What comes there. Not valid when there is none after all.
UniqueFd Accept(RawFd listener, SocketAddress& peer);
SocketAddress LocalAddressOf(RawFd socket);

// Small packets leave at once, and a peer whose machine has gone without a word ends the connection within fifteen
// seconds, as does one that takes nothing of what is sent to it.
void SetUpTcp(RawFd connection);

}  // namespace vel

#endif
