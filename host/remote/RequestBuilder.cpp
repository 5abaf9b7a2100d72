#include "remote/RequestBuilder.h"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

#include "protocol/IsoTable.h"
#include "protocol/Requests.h"

namespace vel {
namespace {

// Writes fields, each in the host's byte order, straight into a request of `payloadBytes`.
class RequestWriter {
 public:
  RequestWriter(Command command, RequestId id, std::size_t payloadBytes)
      : mPacket(VelPacket::Make(VelPacket::kHeaderSize + static_cast<std::uint32_t>(payloadBytes))) {
    mPacket->InitHeader(id.reqId, static_cast<std::uint16_t>(command), id.devId);
  }
  template <std::unsigned_integral... T>
  RequestWriter& Put(T... values) {
    std::uint8_t* to = mPacket->PayloadRoom().data() + mPacket->GetPayloadSize();
    ((std::memcpy(to, &values, sizeof values), to += sizeof values), ...);
    mPacket->AppendInPlace((sizeof values + ...));
    return *this;
  }
  RequestWriter& Put(std::span<const std::uint8_t> bytes) {
    mPacket->Append(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return *this;
  }
  std::unique_ptr<VelPacket> Take() { return std::move(mPacket); }

 private:
  std::unique_ptr<VelPacket> mPacket;
};

}  // namespace

std::unique_ptr<VelPacket> BuildRequest(Command command, RequestId id, std::span<const std::uint8_t> payload) {
  return RequestWriter(command, id, payload.size()).Put(payload).Take();
}

std::unique_ptr<VelPacket> BuildU32Request(Command command, RequestId id, std::uint32_t value) {
  return RequestWriter(command, id, 4).Put(value).Take();
}

std::unique_ptr<VelPacket> BuildAltSettingRequest(RequestId id, std::uint32_t interfaceNumber,
                                                  std::uint32_t altSetting) {
  return RequestWriter(Command::kSetInterfaceAltSetting, id, 8).Put(interfaceNumber).Put(altSetting).Take();
}

std::unique_ptr<VelPacket> BuildStringRequest(RequestId id, std::uint8_t index, std::uint16_t langId,
                                              std::uint32_t length) {
  return RequestWriter(Command::kGetStringDescriptor, id, 7).Put(index).Put(langId).Put(length).Take();
}

std::unique_ptr<VelPacket> BuildControlRequest(RequestId id, const ControlSetup& setup, std::uint32_t timeoutMs,
                                               std::span<const std::uint8_t> data) {
  std::vector<std::uint8_t> stage(data.begin(), data.end());
  stage.resize(std::max<std::size_t>(stage.size(), setup.wLength));
  return RequestWriter(Command::kControlTransfer, id, 12 + stage.size())
      .Put(setup.bmRequestType)
      .Put(setup.bRequest)
      .Put(setup.wValue)
      .Put(setup.wIndex)
      .Put(setup.wLength)
      .Put(timeoutMs)
      .Put(stage)
      .Take();
}

std::unique_ptr<VelPacket> BuildPolicyRequest(RequestId id, std::span<const std::uint8_t> text) {
  return RequestWriter(Command::kSetRedirPolicy, id, 4 + text.size())
      .Put(static_cast<std::uint32_t>(text.size()))
      .Put(text)
      .Take();
}

std::unique_ptr<VelPacket> BuildPing(RequestId id, std::uint32_t streamId, std::uint64_t timestamp) {
  return RequestWriter(Command::kPing, id, 12).Put(streamId).Put(timestamp).Take();
}

std::unique_ptr<VelPacket> BuildTransferRequest(Command command, RequestId id, std::uint8_t endpoint,
                                                std::uint32_t streamId, std::uint32_t length,
                                                std::span<const std::uint8_t> data) {
  return RequestWriter(command, id, 12 + data.size()).Put(std::uint32_t{endpoint}, streamId, length).Put(data).Take();
}

std::unique_ptr<VelPacket> BuildIsoRequest(RequestId id, std::uint8_t endpoint, std::uint32_t streamId,
                                           std::span<const std::uint32_t> lengths,
                                           std::span<const std::uint8_t> payload) {
  const auto packets = static_cast<std::uint32_t>(lengths.size());
  const auto table = static_cast<std::uint32_t>(IsoTableSize(packets));
  const std::uint32_t total = std::accumulate(lengths.begin(), lengths.end(), std::uint32_t{0});
  RequestWriter writer(Command::kIsochTransfer, id, 16 + table + payload.size());
  writer.Put(std::uint32_t{endpoint}).Put(streamId).Put(packets).Put(table + total);
  std::uint32_t offset = table;
  for (const std::uint32_t length : lengths) {
    writer.Put(offset).Put(length).Put(std::uint32_t{0}).Put(std::uint32_t{0});
    offset += length;
  }
  return writer.Put(payload).Take();
}

}  // namespace vel
