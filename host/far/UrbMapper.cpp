#include "far/UrbMapper.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>

#include "protocol/IsoTable.h"
#include "remote/TransferAnswer.h"

namespace vel {
namespace {

constexpr std::uint8_t kTypeMask = 3;  // Of bmAttributes (USB 2.0, 9.6.6).
constexpr std::uint16_t kMaxPacketSizeMask = 0x7FF;

// The packets' bytes back to back; they are so already in what a kernel sends.
std::vector<std::uint8_t> GatherPackets(const Urb& urb, std::span<const UrbPacket> packets) {
  std::vector<std::uint8_t> bytes;
  for (const UrbPacket& packet : packets) {
    const auto piece = urb.data.subspan(packet.offset, packet.length);
    bytes.insert(bytes.end(), piece.begin(), piece.end());
  }
  return bytes;
}

std::unique_ptr<VelPacket> BuildIsoPart(const Urb& urb, std::span<const UrbPacket> packets, RequestId id,
                                        std::uint32_t streamId) {
  std::vector<std::uint32_t> lengths;
  lengths.reserve(packets.size());
  for (const UrbPacket& packet : packets) {
    lengths.push_back(packet.length);
  }
  const std::vector<std::uint8_t> payload = urb.IsIn() ? std::vector<std::uint8_t>() : GatherPackets(urb, packets);
  return BuildIsoRequest(id, urb.endpoint, streamId, lengths, payload);
}

// One part's packets, as far as its reply tells of them. Returns its payloads; they lie packed behind the table.
std::span<const std::uint8_t> TakeIsoTable(std::span<UrbPacket> packets, bool in, const TransferAnswer& answer) {
  const std::size_t table = IsoTableSize(static_cast<std::uint32_t>(packets.size()));
  if (answer.status != LIBUSB_TRANSFER_COMPLETED || (in && answer.data.size() < table)) {
    for (UrbPacket& packet : packets) {
      packet.actualLength = 0;
      packet.status = answer.status == LIBUSB_TRANSFER_COMPLETED ? -kGuestProtocol : ErrnoOfStatus(answer.status);
    }
    return {};
  }
  if (!in) {  // Some modules leave the table out: that the transfer is complete is all there is.
    for (UrbPacket& packet : packets) {
      packet.actualLength = packet.length;
      packet.status = 0;
    }
    return {};
  }
  const std::span<const std::uint8_t> payload = answer.data.subspan(table);
  std::size_t used = 0;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    const IsoPacketRecord record = LoadIsoRecord(answer.data.data(), i);
    packets[i].actualLength = static_cast<std::uint32_t>(
        std::min<std::size_t>({record.actual_length, packets[i].length, payload.size() - used}));
    packets[i].status = ErrnoOfStatus(static_cast<std::int32_t>(record.status));
    if (packets[i].actualLength != record.actual_length) {
      packets[i].status = -kGuestProtocol;
    }
    used += packets[i].actualLength;
  }
  return payload.first(used);
}

}  // namespace

EndpointType TypeOf(const EndpointModel& endpoint) {
  const std::uint32_t packetSize = endpoint.wMaxPacketSize & kMaxPacketSizeMask;
  switch (endpoint.bmAttributes & kTypeMask) {
    case LIBUSB_TRANSFER_TYPE_ISOCHRONOUS:
      return {Command::kIsochTransfer, packetSize};
    case LIBUSB_TRANSFER_TYPE_INTERRUPT:
      return {Command::kInterruptTransfer, packetSize};
    default:
      return {Command::kBulkTransfer, packetSize};
  }
}

std::vector<std::unique_ptr<VelPacket>> BuildUrbRequests(const Urb& urb, const EndpointType& endpoint, RequestId id,
                                                         std::uint32_t firstStream, std::size_t maxPackets) {
  std::vector<std::unique_ptr<VelPacket>> requests;
  if (endpoint.command == Command::kIsochTransfer) {
    for (std::span<const UrbPacket> rest = urb.packets; !rest.empty();) {
      const auto part = rest.first(std::min(rest.size(), maxPackets));
      requests.push_back(BuildIsoPart(urb, part, id, firstStream++));
      rest = rest.subspan(part.size());
    }
    return requests;
  }
  requests.push_back(BuildTransferRequest(endpoint.command, id, urb.endpoint, firstStream, urb.length, urb.data));
  if (!urb.IsIn() && (urb.flags & kUrbZeroPacket) != 0 && urb.length > 0 && endpoint.packetSize > 0 &&
      urb.length % endpoint.packetSize == 0) {
    requests.push_back(BuildTransferRequest(endpoint.command, id, urb.endpoint, firstStream + 1, 0, {}));
  }
  return requests;
}

std::span<const std::uint8_t> TakeAnswer(UrbInFlight& urb, const TransferAnswer& answer, std::size_t maxPackets) {
  const std::uint32_t part = answer.streamId - urb.firstStream;
  std::span<const std::uint8_t> data;
  if (urb.command == Command::kIsochTransfer) {
    const std::size_t first = std::min(part * maxPackets, urb.packets.size());
    const auto packets = std::span(urb.packets).subspan(first, std::min(maxPackets, urb.packets.size() - first));
    data = TakeIsoTable(packets, urb.IsIn(), answer);
    urb.actualLength = 0;
    for (const UrbPacket& packet : urb.packets) {
      urb.actualLength += packet.actualLength;
    }
  } else if (part == 0) {  // The other one is the empty transfer behind it.
    urb.actualLength = urb.IsIn() ? static_cast<std::uint32_t>(std::min<std::size_t>(answer.data.size(), urb.length))
                                  : MovedOut(answer, urb.length);
    data = urb.IsIn() ? answer.data.first(urb.actualLength) : data;
  }
  urb.status = urb.status == 0 ? ErrnoOfStatus(answer.status) : urb.status;
  const bool isShort = urb.status == 0 && urb.IsIn() && urb.actualLength < urb.length;
  if (isShort && (urb.flags & kUrbShortNotOk) != 0 && urb.command != Command::kIsochTransfer) {
    urb.status = -kGuestRemoteIo;
  }
  ++urb.partsDone;
  if (urb.parts == 1) {
    return data;
  }
  urb.data.insert(urb.data.end(), data.begin(), data.end());
  return urb.data;
}

}  // namespace vel
