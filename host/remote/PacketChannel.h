#ifndef VIRTUSB_HOST_REMOTE_PACKET_CHANNEL_H
#define VIRTUSB_HOST_REMOTE_PACKET_CHANNEL_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "protocol/VelPacket.h"

namespace vel {

// In the header of a reply, where the module writes zero: what virtusb says of how the device is served.
inline constexpr std::size_t kServiceOffset = 13;
inline constexpr std::uint8_t kAnswersFailures = 1;  // Transfers that fail or are cancelled have a reply.

// Why a channel ends whose device has left its machine.
inline constexpr char kPulledOut[] = "it was pulled out";

// A way to a redirected device, as its remote side sees it: requests go in, replies come out. Whether the module is
// in this process or behind a byte stream does not show.
class PacketChannel {
 public:
  struct Receiver {
    std::function<void(std::unique_ptr<VelPacket>)> onPacket;
    // The other side is gone; once. What was under way may still come after it. `why` is for people.
    std::function<void(const std::string& why)> onClosed;
  };
  // What there is to know of the other side when it does not answer.
  struct Contact {
    std::chrono::milliseconds startTime{0};  // How long its first reply may take, where that is longer than others.
    std::string advice;                      // What to do about it, for people.
  };

  PacketChannel() = default;
  PacketChannel(const PacketChannel&) = delete;
  PacketChannel& operator=(const PacketChannel&) = delete;
  virtual ~PacketChannel() = default;

  virtual Contact GetContact() const { return {}; }
  // Starts the exchange. Once. The receiver is called on threads of the channel, and must not call Close there.
  virtual void Start(Receiver receiver) = 0;
  // Sends a request. False when the channel is closed. Any thread.
  virtual bool Send(std::unique_ptr<VelPacket> packet) = 0;
  // Ends the exchange; the receiver is not called any more when it returns. Any thread; harmless when repeated.
  virtual void Close() = 0;
};

}  // namespace vel

#endif
