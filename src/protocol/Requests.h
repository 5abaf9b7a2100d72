// Checked reading of request payloads. Pure: no thread, no log, nothing allocated; what is returned points into
// the payload.
#ifndef VEL_PROTOCOL_REQUESTS_H
#define VEL_PROTOCOL_REQUESTS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vel {

// Bounds on what a remote side may ask for; beyond them a request is answered as one that is too short.
inline constexpr std::uint32_t kMaxTransferBytes = 64U << 20U;
inline constexpr std::uint32_t kMaxIsoPackets = 1024;
inline constexpr std::uint32_t kMaxPolicyBytes = 64U << 10U;
// On all that waits for one device: queued requests and pending transfers.
inline constexpr std::uint64_t kMaxPendingBytes = 256ULL << 20U;
inline constexpr std::uint32_t kMaxPendingTransfers = 16384;
// Bytes that a string descriptor can have, and the room that its handler offers (USB 2.0, 9.6.7: bLength is u8).
inline constexpr std::uint32_t kStringBufferBytes = 256;

inline constexpr std::uint8_t kDirectionIn = 0x80;

enum class PayloadError {
  kNone,
  kTooShort,  // The fields, or data that has to be there, are missing.
  kTooLong,   // A length or a packet count above its bound.
  kIsoTable,  // The table or the packets that it describes do not fit the data.
  kDropped,   // The data was dropped: too much waited when the request came.
};
std::string_view PayloadErrorText(PayloadError error);

// Bulk, interrupt and isochronous requests.
struct TransferRequest {
  PayloadError error = PayloadError::kNone;
  std::uint32_t streamId = 0;  // Valid as far as it was there, also with an error.
  std::uint8_t epAddr = 0;
  std::uint32_t isoPackets = 0;
  std::uint32_t length = 0;
  std::uint32_t isoBytes = 0;          // Table and packets together, as far as the table describes them.
  std::span<const std::uint8_t> data;  // At most `length` bytes; fewer only for IN, where the rest counts as zeros.
};
TransferRequest ReadTransferRequest(std::span<const std::uint8_t> payload);
TransferRequest ReadIsoRequest(std::span<const std::uint8_t> payload);

struct ControlRequest {
  std::uint8_t bmRequestType = 0;
  std::uint8_t bRequest = 0;
  std::uint16_t wValue = 0;
  std::uint16_t wIndex = 0;
  std::uint16_t wLength = 0;
  std::uint32_t timeout = 0;           // Milliseconds; 0: without limit.
  std::span<const std::uint8_t> data;  // As in TransferRequest.
};
std::optional<ControlRequest> ReadControlRequest(std::span<const std::uint8_t> payload);

struct StringRequest {
  std::uint8_t index = 0;
  std::uint16_t langId = 0;
  std::uint32_t length = 0;
};
std::optional<StringRequest> ReadStringRequest(std::span<const std::uint8_t> payload);

struct AltSettingRequest {
  std::uint32_t interfaceNumber = 0;
  std::uint32_t altSetting = 0;
};
std::optional<AltSettingRequest> ReadAltSettingRequest(std::span<const std::uint8_t> payload);

// The one u32 of set configuration and cancel transfer.
std::optional<std::uint32_t> ReadU32Request(std::span<const std::uint8_t> payload);

// The policy text, not terminated.
std::optional<std::string_view> ReadPolicyRequest(std::span<const std::uint8_t> payload);

}  // namespace vel

#endif
