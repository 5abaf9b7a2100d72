// URBs as transfers of a redirected device, and their replies as what a guest's kernel takes. Pure.
#ifndef VIRTUSB_HOST_FAR_URB_MAPPER_H
#define VIRTUSB_HOST_FAR_URB_MAPPER_H

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "far/UrbTable.h"
#include "far/UsbipWire.h"
#include "protocol/VelPacket.h"
#include "remote/ConfigModel.h"
#include "remote/RequestBuilder.h"
#include "remote/TransferAnswer.h"

namespace vel {

// What a URB's endpoint is: not a control one.
struct EndpointType {
  Command command = Command::kBulkTransfer;
  std::uint32_t packetSize = 0;  // wMaxPacketSize without its further bits.
};
EndpointType TypeOf(const EndpointModel& endpoint);

// The requests that carry a URB out, in their order, with stream ids from `firstStream` on. No
// isochronous request has more than `maxPackets`.
std::vector<std::unique_ptr<VelPacket>> BuildUrbRequests(const Urb& urb, const EndpointType& endpoint, RequestId id,
                                                         std::uint32_t firstStream, std::size_t maxPackets);

// Takes the reply to a part into the URB. The data of an IN URB with one part is not copied: it is returned, and lies
// in `answer`; with more parts the URB has it.
std::span<const std::uint8_t> TakeAnswer(UrbInFlight& urb, const TransferAnswer& answer, std::size_t maxPackets);

}  // namespace vel

#endif
