#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_CHANNEL_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_CHANNEL_H

#include <memory>
#include <string>

#include "cmd/console/CommonOptions.h"
#include "remote/FdStream.h"
#include "remote/PacketChannel.h"

namespace vel {

// The channel to what DEVICE names: a device of this machine or an emulated one, through the module of `common`; one
// that is served elsewhere, tcp://HOST:PORT or tls://HOST:PORT; or exec:COMMAND, whose standard input and output carry
// the packets. From the first remote one on this process ignores SIGPIPE.
//
// `answersFailures` is for devices that this process redirects; elsewhere it is up to who serves.
// Throws UsageError for a text that names no device, std::runtime_error for one that is not there, and Interrupted once
// `stop` is raised, which outlives the channel.
std::unique_ptr<PacketChannel> OpenDevice(const std::string& device, const CommonOptions& common,
                                          const StopSignal& stop, bool answersFailures = false);

// Whether DEVICE names one behind packets.
bool IsRemoteDevice(const std::string& device);

}  // namespace vel

#endif
