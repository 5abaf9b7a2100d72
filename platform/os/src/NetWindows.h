// Windows' sockets, for the sources of this folder alone: its headers make macros of common words.
#ifndef VIRTUSB_PLATFORM_OS_NET_WINDOWS_H
#define VIRTUSB_PLATFORM_OS_NET_WINDOWS_H

#define WIN32_LEAN_AND_MEAN
#include <winsock2.h>
// After it.
#include <mstcpip.h>
#include <ws2tcpip.h>

namespace vel {

// Before the first socket; harmless again. Throws std::system_error.
void StartSockets();

}  // namespace vel

#endif
