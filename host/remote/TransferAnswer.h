// What a transfer's reply says, and what a kernel calls it. Pure.
#ifndef VIRTUSB_HOST_REMOTE_TRANSFER_ANSWER_H
#define VIRTUSB_HOST_REMOTE_TRANSFER_ANSWER_H

#include <cstdint>
#include <optional>
#include <span>

#include "protocol/VelPacket.h"

namespace vel {

// A guest's errno: Linux' numbers, whatever this machine's are.
enum GuestErrno : std::int32_t {
  kGuestNoEntry = 2,
  kGuestNoMemory = 12,
  kGuestNoDevice = 19,
  kGuestInvalid = 22,
  kGuestPipe = 32,
  kGuestProtocol = 71,
  kGuestOverflow = 75,
  kGuestReset = 104,
  kGuestTimedOut = 110,
  kGuestRemoteIo = 121,
};

// The negative GuestErrno for a libusb_transfer_status, and for a request's LIBUSB_ERROR_*; 0 for success.
std::int32_t ErrnoOfStatus(std::int32_t status);
std::int32_t ErrnoOfResult(std::int32_t result);

// The reply to a bulk, interrupt or isochronous transfer.
struct TransferAnswer {
  std::uint32_t streamId = 0;
  std::int32_t status = 0;  // libusb_transfer_status
  std::uint32_t isoPackets = 0;
  std::span<const std::uint8_t> data;  // Points into the packet.
};
// Nothing for a packet that is too short to be one.
std::optional<TransferAnswer> ReadTransferAnswer(const VelPacket& packet);

// The bytes that a bulk or interrupt OUT transfer of `length` bytes moved: its reply carries the data that was moved,
// or none.
std::uint32_t MovedOut(const TransferAnswer& answer, std::uint32_t length);

}  // namespace vel

#endif
