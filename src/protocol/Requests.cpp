#include "protocol/Requests.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "protocol/ByteReader.h"
#include "protocol/IsoTable.h"

namespace vel {
namespace {

// The data behind the fields, as far as it is there and is asked for. OUT data has to be complete.
bool TakeData(ByteReader& reader, bool in, std::uint32_t length, std::span<const std::uint8_t>& data) {
  const std::size_t there = std::min<std::size_t>(length, reader.Rest().size());
  data = reader.Bytes(there);
  return in || there == length;
}

// The packet's record, zeros where an IN request left its filler out.
IsoPacketRecord RecordOf(std::span<const std::uint8_t> data, std::uint32_t index) {
  const std::size_t begin = std::size_t{index} * sizeof(IsoPacketRecord);
  IsoPacketRecord record{};
  if (begin < data.size()) {
    std::memcpy(&record, data.data() + begin, std::min(sizeof record, data.size() - begin));
  }
  return record;
}

PayloadError CheckIsoTable(TransferRequest& request) {
  const std::uint64_t table = IsoTableSize(request.isoPackets);
  if (table > request.length) {
    return PayloadError::kIsoTable;
  }
  std::uint64_t payload = 0;
  for (std::uint32_t i = 0; i < request.isoPackets; ++i) {
    payload += RecordOf(request.data, i).length;
  }
  // An IN request brings its table alone or with filler for the payload; the answer is what has to be bounded.
  const bool in = (request.epAddr & kDirectionIn) != 0;
  const std::uint64_t room = in ? kMaxTransferBytes : request.length;
  if (table + payload > room) {
    return PayloadError::kIsoTable;
  }
  request.isoBytes = static_cast<std::uint32_t>(table + payload);
  return PayloadError::kNone;
}

PayloadError ReadFieldsAndData(std::span<const std::uint8_t> payload, bool iso, TransferRequest& request) {
  ByteReader reader(payload);
  request.epAddr = static_cast<std::uint8_t>(reader.Host<std::uint32_t>());
  request.streamId = reader.Host<std::uint32_t>();
  if (iso) {
    request.isoPackets = reader.Host<std::uint32_t>();
  }
  request.length = reader.Host<std::uint32_t>();
  if (!reader.Ok()) {
    return PayloadError::kTooShort;
  }
  if (request.length > kMaxTransferBytes || request.isoPackets > kMaxIsoPackets) {
    return PayloadError::kTooLong;
  }
  if (!TakeData(reader, (request.epAddr & kDirectionIn) != 0, request.length, request.data)) {
    return PayloadError::kTooShort;
  }
  return iso ? CheckIsoTable(request) : PayloadError::kNone;
}

TransferRequest ReadTransfer(std::span<const std::uint8_t> payload, bool iso) {
  TransferRequest request;
  request.error = ReadFieldsAndData(payload, iso, request);
  return request;
}

}  // namespace

std::string_view PayloadErrorText(PayloadError error) {
  switch (error) {
    case PayloadError::kNone:
      return "none";
    case PayloadError::kTooShort:
      return "too short";
    case PayloadError::kTooLong:
      return "length or packet count above the bound";
    case PayloadError::kIsoTable:
      return "packet table does not fit the data";
    case PayloadError::kDropped:
      return "too many requests wait, its data was dropped";
  }
  return "unknown";
}

TransferRequest ReadTransferRequest(std::span<const std::uint8_t> payload) {
  return ReadTransfer(payload, false);
}

TransferRequest ReadIsoRequest(std::span<const std::uint8_t> payload) {
  return ReadTransfer(payload, true);
}

std::optional<ControlRequest> ReadControlRequest(std::span<const std::uint8_t> payload) {
  ByteReader reader(payload);
  ControlRequest request;
  request.bmRequestType = reader.Host<std::uint8_t>();
  request.bRequest = reader.Host<std::uint8_t>();
  request.wValue = reader.Host<std::uint16_t>();
  request.wIndex = reader.Host<std::uint16_t>();
  request.wLength = reader.Host<std::uint16_t>();
  request.timeout = reader.Host<std::uint32_t>();
  const bool in = (request.bmRequestType & kDirectionIn) != 0;
  if (!reader.Ok() || !TakeData(reader, in, request.wLength, request.data)) {
    return std::nullopt;
  }
  return request;
}

std::optional<StringRequest> ReadStringRequest(std::span<const std::uint8_t> payload) {
  ByteReader reader(payload);
  StringRequest request;
  request.index = reader.Host<std::uint8_t>();
  request.langId = reader.Host<std::uint16_t>();
  request.length = reader.Host<std::uint32_t>();
  return reader.Ok() ? std::optional(request) : std::nullopt;
}

std::optional<AltSettingRequest> ReadAltSettingRequest(std::span<const std::uint8_t> payload) {
  ByteReader reader(payload);
  AltSettingRequest request;
  request.interfaceNumber = reader.Host<std::uint32_t>();
  request.altSetting = reader.Host<std::uint32_t>();
  return reader.Ok() ? std::optional(request) : std::nullopt;
}

std::optional<std::uint32_t> ReadU32Request(std::span<const std::uint8_t> payload) {
  ByteReader reader(payload);
  const auto value = reader.Host<std::uint32_t>();
  return reader.Ok() ? std::optional(value) : std::nullopt;
}

std::optional<std::string_view> ReadPolicyRequest(std::span<const std::uint8_t> payload) {
  ByteReader reader(payload);
  const auto length = reader.Host<std::uint32_t>();
  if (!reader.Ok() || length > kMaxPolicyBytes) {
    return std::nullopt;
  }
  const std::span<const std::uint8_t> text = reader.Bytes(length);
  if (!reader.Ok()) {
    return std::nullopt;
  }
  return std::string_view(reinterpret_cast<const char*>(text.data()), text.size());
}

}  // namespace vel
