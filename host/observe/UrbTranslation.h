// Packets as the USB traffic that they stand for. Pure.
#ifndef VIRTUSB_HOST_OBSERVE_URB_TRANSLATION_H
#define VIRTUSB_HOST_OBSERVE_URB_TRANSLATION_H

#include <chrono>
#include <cstdint>
#include <vector>

#include "observe/UsbmonRecord.h"
#include "protocol/Commands.h"
#include "protocol/VelPacket.h"

namespace vel {

// What is remembered of a request until its reply comes. Its memory is meant to be used again.
struct PendingUrb {
  Command command = Command::kPing;
  std::uint32_t match = 0;  // What its reply repeats: the stream id, or the reqID.
  std::uint64_t id = 0;
  UsbTransferType type = UsbTransferType::kControl;
  std::uint8_t endpoint = 0;
  std::uint32_t length = 0;  // Asked for. Of a cancel: the stream id.
  bool isPicture = false;    // A camera's read, which is answered with a picture.
  std::chrono::steady_clock::time_point begin;
  std::vector<UsbmonIsoDescriptor> packets;

  bool IsIn() const { return (endpoint & 0x80) != 0; }
};

// The submission that a request stands for: a transfer, or a command that a device sees as a standard control request.
// It points into `urb` and the packet. False for a cancel, which is remembered alone, and with command kPing in `urb`
// for what nothing is to be remembered of.
bool ReadSubmission(const VelPacket& request, PendingUrb& urb, UsbEvent& event);

// The completion that a reply to `urb` stands for. It points into `urb`, the packet, or `descriptors`, where those of a
// configuration are put together. A reply that is cut is an error.
UsbEvent ReadCompletion(const VelPacket& reply, PendingUrb& urb, std::vector<std::uint8_t>& descriptors);

}  // namespace vel

#endif
