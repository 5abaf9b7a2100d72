// Matchers for what a module sends. Each also wants a whole header and a length field that counts the bytes.
#ifndef VIRTUSB_TESTS_SUPPORT_REPLY_MATCHERS_H
#define VIRTUSB_TESTS_SUPPORT_REPLY_MATCHERS_H

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <span>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "protocol/Commands.h"
#include "support/RecordingDeviceBase.h"

namespace vel {

using ReplyMatcher = ::testing::Matcher<const Reply&>;
using BytesMatcher = ::testing::Matcher<const std::vector<std::uint8_t>&>;

inline void PrintTo(const Reply& reply, std::ostream* out) {
  *out << (reply.wellFormed ? "" : "malformed ") << "command 0x" << std::hex << reply.command << std::dec << " reqId "
       << unsigned{reply.reqId} << " devId " << reply.devId << " payload " << ::testing::PrintToString(reply.payload);
}

// A reply whose payload is these numbers, and behind them what `data` matches.
MATCHER_P4(IsReplyTo, request, reqId, numbers, data, "") {
  const auto wanted = std::as_bytes(std::span(numbers));
  const std::size_t size = wanted.size();
  if (!arg.wellFormed || arg.command != ReplyCode(request) || arg.reqId != reqId || arg.payload.size() < size ||
      !std::ranges::equal(wanted, std::as_bytes(std::span(arg.payload)).first(size))) {
    return false;
  }
  const std::vector<std::uint8_t> rest(arg.payload.begin() + static_cast<std::ptrdiff_t>(size), arg.payload.end());
  return ::testing::ExplainMatchResult(data, rest, result_listener);
}

using Numbers = std::vector<std::uint32_t>;

// The reply to `request` whose payload matches.
inline ReplyMatcher IsReply(Command request, std::uint8_t reqId, std::uint32_t devId, BytesMatcher payload) {
  return AllOf(IsReplyTo(request, reqId, Numbers(), std::move(payload)),
               ::testing::Field("devId", &Reply::devId, devId));
}
// 20 bytes: a header and `value`.
inline ReplyMatcher IsStatusReply(Command request, std::uint8_t reqId, std::uint32_t devId, std::int32_t value) {
  return AllOf(IsReplyTo(request, reqId, Numbers{static_cast<std::uint32_t>(value)}, ::testing::IsEmpty()),
               ::testing::Field("devId", &Reply::devId, devId));
}

// Give-backs.
inline ReplyMatcher IsGiveBack(Command request, Numbers numbers, BytesMatcher data) {
  return IsReplyTo(request, RecordingDeviceBase::kReplyReqId, std::move(numbers), std::move(data));
}
inline ReplyMatcher IsBulkReply(std::uint32_t streamId, std::int32_t status, BytesMatcher data) {
  return IsGiveBack(Command::kBulkTransfer, {streamId, static_cast<std::uint32_t>(status)}, std::move(data));
}
inline ReplyMatcher IsInterruptReply(std::uint32_t streamId, std::int32_t status, BytesMatcher data) {
  return IsGiveBack(Command::kInterruptTransfer, {streamId, static_cast<std::uint32_t>(status)}, std::move(data));
}
inline ReplyMatcher IsIsoReply(std::uint32_t streamId, std::int32_t status, std::uint32_t packets, BytesMatcher data) {
  return IsGiveBack(Command::kIsochTransfer, {streamId, static_cast<std::uint32_t>(status), packets}, std::move(data));
}

}  // namespace vel

#endif
