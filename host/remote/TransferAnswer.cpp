#include "remote/TransferAnswer.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>

#include "protocol/ByteReader.h"
#include "protocol/Commands.h"

namespace vel {

std::int32_t ErrnoOfStatus(std::int32_t status) {
  switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
      return 0;
    case LIBUSB_TRANSFER_TIMED_OUT:
      return -kGuestTimedOut;
    case LIBUSB_TRANSFER_CANCELLED:
      return -kGuestReset;
    case LIBUSB_TRANSFER_STALL:
      return -kGuestPipe;
    case LIBUSB_TRANSFER_NO_DEVICE:
      return -kGuestNoDevice;
    case LIBUSB_TRANSFER_OVERFLOW:
      return -kGuestOverflow;
    default:
      return -kGuestProtocol;
  }
}

std::int32_t ErrnoOfResult(std::int32_t result) {
  if (result >= 0) {
    return 0;
  }
  switch (result) {
    case LIBUSB_ERROR_PIPE:
    case LIBUSB_ERROR_NOT_FOUND:  // No such configuration or setting: a device stalls.
      return -kGuestPipe;
    case LIBUSB_ERROR_TIMEOUT:
      return -kGuestTimedOut;
    case LIBUSB_ERROR_NO_DEVICE:
      return -kGuestNoDevice;
    case LIBUSB_ERROR_OVERFLOW:
      return -kGuestOverflow;
    case LIBUSB_ERROR_NO_MEM:
      return -kGuestNoMemory;
    default:
      return -kGuestProtocol;
  }
}

std::optional<TransferAnswer> ReadTransferAnswer(const VelPacket& packet) {
  ByteReader reader(packet.PayloadBytes());
  TransferAnswer answer;
  answer.streamId = reader.Host<std::uint32_t>();
  answer.status = static_cast<std::int32_t>(reader.Host<std::uint32_t>());
  if (packet.GetCommand() == ReplyCode(Command::kIsochTransfer)) {
    answer.isoPackets = reader.Host<std::uint32_t>();
  }
  answer.data = reader.Rest();
  return reader.Ok() ? std::optional(answer) : std::nullopt;
}

std::uint32_t MovedOut(const TransferAnswer& answer, std::uint32_t length) {
  const auto count = static_cast<std::uint32_t>(std::min<std::size_t>(answer.data.size(), length));
  if (answer.status == LIBUSB_TRANSFER_COMPLETED) {
    return answer.data.empty() ? length : count;
  }
  return count == length ? 0 : count;  // One that was not even submitted comes back whole.
}

}  // namespace vel
