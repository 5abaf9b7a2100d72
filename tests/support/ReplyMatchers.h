// Matchers for what a module sends. Each also wants a whole header and a length field that counts
// the bytes.
#ifndef VIRTUSB_TESTS_SUPPORT_REPLY_MATCHERS_H
#define VIRTUSB_TESTS_SUPPORT_REPLY_MATCHERS_H

#include <cstdint>
#include <ostream>
#include <vector>

#include <gmock/gmock.h>

#include "protocol/Commands.h"
#include "support/RecordingDeviceBase.h"

namespace vel {

using ReplyMatcher = ::testing::Matcher<const Reply&>;
using BytesMatcher = ::testing::Matcher<const std::vector<std::uint8_t>&>;

void PrintTo(const Reply& reply, std::ostream* out);

// The reply to `request` whose payload matches.
ReplyMatcher IsReply(Command request, std::uint8_t reqId, std::uint32_t devId, BytesMatcher payload);

// 20 bytes: a header and `value`.
ReplyMatcher IsStatusReply(Command request, std::uint8_t reqId, std::uint32_t devId, std::int32_t value);

// Give-backs.
ReplyMatcher IsBulkReply(std::uint32_t streamId, std::int32_t status, BytesMatcher data);
ReplyMatcher IsInterruptReply(std::uint32_t streamId, std::int32_t status, BytesMatcher data);
ReplyMatcher IsIsoReply(std::uint32_t streamId, std::int32_t status, std::uint32_t packets, BytesMatcher data);

}  // namespace vel

#endif
