// Request packets with their payloads, ready to be sent.
#ifndef VIRTUSB_HOST_REMOTE_REQUEST_BUILDER_H
#define VIRTUSB_HOST_REMOTE_REQUEST_BUILDER_H

#include <cstdint>
#include <memory>
#include <span>

#include "protocol/Commands.h"
#include "protocol/VelPacket.h"

namespace vel {

struct RequestId {
  std::uint8_t reqId = 0;
  std::uint32_t devId = 1;
};

// The setup packet of a control request (USB 2.0, 9.3).
struct ControlSetup {
  std::uint8_t bmRequestType = 0;
  std::uint8_t bRequest = 0;
  std::uint16_t wValue = 0;
  std::uint16_t wIndex = 0;
  std::uint16_t wLength = 0;
};

std::unique_ptr<VelPacket> BuildRequest(Command command, RequestId id, std::span<const std::uint8_t> payload = {});
std::unique_ptr<VelPacket> BuildU32Request(Command command, RequestId id, std::uint32_t value);
std::unique_ptr<VelPacket> BuildAltSettingRequest(RequestId id, std::uint32_t interfaceNumber,
                                                  std::uint32_t altSetting);
std::unique_ptr<VelPacket> BuildStringRequest(RequestId id, std::uint8_t index, std::uint16_t langId,
                                              std::uint32_t length);
// `data` fills the first bytes of the wLength that the request carries; zeros follow.
std::unique_ptr<VelPacket> BuildControlRequest(RequestId id, const ControlSetup& setup, std::uint32_t timeoutMs,
                                               std::span<const std::uint8_t> data = {});
std::unique_ptr<VelPacket> BuildPolicyRequest(RequestId id, std::span<const std::uint8_t> text);
std::unique_ptr<VelPacket> BuildPing(RequestId id, std::uint32_t streamId, std::uint64_t timestamp);

// Bulk and interrupt. `length` is what the request asks for; `data` may be shorter for IN, where it is filler.
std::unique_ptr<VelPacket> BuildTransferRequest(Command command, RequestId id, std::uint8_t endpoint,
                                                std::uint32_t streamId, std::uint32_t length,
                                                std::span<const std::uint8_t> data);
// One packet per entry of `lengths`; `payload` follows the table for OUT.
std::unique_ptr<VelPacket> BuildIsoRequest(RequestId id, std::uint8_t endpoint, std::uint32_t streamId,
                                           std::span<const std::uint32_t> lengths,
                                           std::span<const std::uint8_t> payload);

}  // namespace vel

#endif
