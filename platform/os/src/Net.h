// The headers of the system's sockets, for the sources of this folder alone.
#ifndef VIRTUSB_PLATFORM_OS_NET_H
#define VIRTUSB_PLATFORM_OS_NET_H

#ifdef _WIN32
#include "NetWindows.h"
#else
#include "NetPosix.h"
#endif

#include <string>

#include "os/Socket.h"

namespace vel {

inline sockaddr* RawOf(SocketAddress& address) {
  return reinterpret_cast<sockaddr*>(address.bytes.data());
}
inline const sockaddr* RawOf(const SocketAddress& address) {
  return reinterpret_cast<const sockaddr*>(address.bytes.data());
}

// What getaddrinfo's result means, for people.
std::string ResolverText(int error);

}  // namespace vel

#endif
