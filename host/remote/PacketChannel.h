#ifndef VIRTUSB_HOST_REMOTE_PACKET_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_PACKET_CHANNEL_H

#include <functional>
#include <memory>

#include "protocol/VelPacket.h"

namespace vel {

// A way to a redirected device, as its remote side sees it: requests go in, replies come out. Whether the module is
// in this process or behind a byte stream does not show.
class PacketChannel {
 public:
  struct Receiver {
    std::function<void(std::unique_ptr<VelPacket>)> onPacket;
    std::function<void()> onClosed;  // The other side is gone; once, and no packet comes after it.
  };

  PacketChannel() = default;
  PacketChannel(const PacketChannel&) = delete;
  PacketChannel& operator=(const PacketChannel&) = delete;
  virtual ~PacketChannel() = default;

  // Starts the exchange. Once. The receiver is called on threads of the channel, and must not call Close there.
  virtual void Start(Receiver receiver) = 0;
  // Sends a request. False when the channel is closed. Any thread.
  virtual bool Send(std::unique_ptr<VelPacket> packet) = 0;
  // Ends the exchange; the receiver is not called any more when it returns. Any thread; harmless when repeated.
  virtual void Close() = 0;
};

}  // namespace vel

#endif
