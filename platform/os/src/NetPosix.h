#ifndef VIRTUSB_PLATFORM_OS_NET_POSIX_H
#define VIRTUSB_PLATFORM_OS_NET_POSIX_H

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace vel {

// Sockets need no start here.
inline void StartSockets() {}

}  // namespace vel

#endif
