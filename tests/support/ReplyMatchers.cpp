#include "support/ReplyMatchers.h"

#include <cstring>
#include <initializer_list>

namespace vel {
namespace {

using ::testing::AllOf;
using ::testing::Field;

std::vector<std::uint8_t> Words(std::initializer_list<std::uint32_t> values) {
  std::vector<std::uint8_t> bytes(values.size() * sizeof(std::uint32_t));
  std::memcpy(bytes.data(), values.begin(), bytes.size());
  return bytes;
}

ReplyMatcher HasCommand(Command request) {
  return AllOf(Field("wellFormed", &Reply::wellFormed, true), Field("command", &Reply::command, ReplyCode(request)));
}

// A payload that begins with `fields` and goes on with `data`.
MATCHER_P2(BeginsWith, fields, data, "") {
  if (arg.size() < fields.size() || std::memcmp(arg.data(), fields.data(), fields.size()) != 0) {
    *result_listener << "other fields than " << ::testing::PrintToString(fields);
    return false;
  }
  const std::vector<std::uint8_t> rest(arg.begin() + static_cast<std::ptrdiff_t>(fields.size()), arg.end());
  return ::testing::ExplainMatchResult(data, rest, result_listener);
}

ReplyMatcher IsGiveBack(Command request, std::initializer_list<std::uint32_t> fields, const BytesMatcher& data) {
  return AllOf(HasCommand(request), Field("reqId", &Reply::reqId, RecordingDeviceBase::kReplyReqId),
               Field("payload", &Reply::payload, BeginsWith(Words(fields), data)));
}

}  // namespace

void PrintTo(const Reply& reply, std::ostream* out) {
  *out << (reply.wellFormed ? "" : "malformed ") << "command 0x" << std::hex << reply.command << std::dec << " reqId "
       << unsigned{reply.reqId} << " devId " << reply.devId << " payload " << ::testing::PrintToString(reply.payload);
}

ReplyMatcher IsReply(Command request, std::uint8_t reqId, std::uint32_t devId, BytesMatcher payload) {
  return AllOf(HasCommand(request), Field("reqId", &Reply::reqId, reqId), Field("devId", &Reply::devId, devId),
               Field("payload", &Reply::payload, payload));
}

ReplyMatcher IsStatusReply(Command request, std::uint8_t reqId, std::uint32_t devId, std::int32_t value) {
  return IsReply(request, reqId, devId, ::testing::Eq(Words({static_cast<std::uint32_t>(value)})));
}

ReplyMatcher IsBulkReply(std::uint32_t streamId, std::int32_t status, BytesMatcher data) {
  return IsGiveBack(Command::kBulkTransfer, {streamId, static_cast<std::uint32_t>(status)}, data);
}

ReplyMatcher IsInterruptReply(std::uint32_t streamId, std::int32_t status, BytesMatcher data) {
  return IsGiveBack(Command::kInterruptTransfer, {streamId, static_cast<std::uint32_t>(status)}, data);
}

ReplyMatcher IsIsoReply(std::uint32_t streamId, std::int32_t status, std::uint32_t packets, BytesMatcher data) {
  return IsGiveBack(Command::kIsochTransfer, {streamId, static_cast<std::uint32_t>(status), packets}, data);
}

}  // namespace vel
