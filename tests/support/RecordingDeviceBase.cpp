#include "support/RecordingDeviceBase.h"

#include <algorithm>
#include <utility>

#include "protocol/VelPacket.h"
#include "support/Limits.h"

namespace vel {
namespace {

Reply ReadReply(const VelPacket& packet) {
  const std::span<const std::uint8_t> wire = packet.Wire();
  Reply reply{.command = packet.GetCommand(),
              .reqId = packet.GetReqId(),
              .devId = packet.GetDevId(),
              .payload = {},
              .wellFormed = false,
              .thread = std::this_thread::get_id()};
  if (wire.size() >= VelPacket::kHeaderSize) {
    const auto tail = wire.subspan(VelPacket::kByteOrderOffset, 4);  // Byte order and reserved.
    reply.wellFormed = wire[0] == VelPacket::kMagic && packet.GetPacketSize() == wire.size() &&
                       std::all_of(tail.begin(), tail.end(), [](std::uint8_t byte) { return byte == 0; });
    reply.payload.assign(wire.begin() + VelPacket::kHeaderSize, wire.end());
  }
  return reply;
}

}  // namespace

int RecordingDeviceBase::Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) {
  Reply reply = ReadReply(*packet);
  reply.wellFormed = reply.wellFormed && waitMs == 0xFFFFFFFF;
  if (mHook) {
    mHook(reply);
  }
  const MutexLock lock(mMutex);
  ++mReplyCount;
  if (mKeepsReplies) {
    mReplies.push_back(std::move(reply));
  }
  mReplied.NotifyAll();
  return 0;
}

void RecordingDeviceBase::Trace(std::uint64_t spanId, const char* event, const VelTraceAttribute* attributes,
                                std::size_t count) {
  std::string text = event;
  for (std::size_t i = 0; i < count; ++i) {
    text += std::string(i == 0 ? " " : ", ") + attributes[i].key + "=" + attributes[i].value;
  }
  const MutexLock lock(mMutex);
  mEvents.push_back(std::move(text));
  mSpanIds.push_back(spanId);
}

bool RecordingDeviceBase::WaitForReplies(std::size_t n) const {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mMutex);
  while (mReplyCount < n && mReplied.WaitUntil(lock, deadline)) {
  }
  return mReplyCount >= n;
}

std::vector<Reply> RecordingDeviceBase::Replies() const {
  const MutexLock lock(mMutex);
  return mReplies;
}

std::size_t RecordingDeviceBase::ReplyCount() const {
  const MutexLock lock(mMutex);
  return mReplyCount;
}

std::vector<std::string> RecordingDeviceBase::Events() const {
  const MutexLock lock(mMutex);
  return mEvents;
}

std::vector<std::uint64_t> RecordingDeviceBase::SpanIds() const {
  const MutexLock lock(mMutex);
  return mSpanIds;
}

}  // namespace vel
