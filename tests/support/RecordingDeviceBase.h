#ifndef VIRTUSB_TESTS_SUPPORT_RECORDING_DEVICE_BASE_H
#define VIRTUSB_TESTS_SUPPORT_RECORDING_DEVICE_BASE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "protocol/VelPacket.h"
#include "support/Collected.h"
#include "support/FakeDeviceBase.h"

namespace vel {

class IUsbIo;

// A packet that the module sent.
struct Reply {
  std::uint16_t command = 0;
  std::uint8_t reqId = 0;
  std::uint32_t devId = 0;
  std::vector<std::uint8_t> payload;
  bool wellFormed = false;  // Magic, byte order, reserved bytes and the length field are what they have to be.
};

// The framework's side of one redirected device: says which device it is and keeps what the module sends. Any thread.
class RecordingDeviceBase final : public FakeDeviceBase {
 public:
  // Called in Send, before the reply is kept, on the module's thread; may block.
  using SendHook = std::function<void(const Reply&)>;
  using BackendMaker = std::function<IUsbIo*(std::uint32_t type)>;

  RecordingDeviceBase() : RecordingDeviceBase(Identity{}) {}
  explicit RecordingDeviceBase(Identity identity) : FakeDeviceBase(std::move(identity)) {}

  // To be set before a driver is made.
  void OnSend(SendHook hook) { mHook = std::move(hook); }
  void SetBackend(BackendMaker maker) { mBackendMaker = std::move(maker); }
  IUsbIo* MakeBackend(std::uint32_t type) const { return mBackendMaker ? mBackendMaker(type) : nullptr; }

  // False when fewer than `n` replies, counted from the start, have come by the deadline.
  [[nodiscard]] bool WaitForReplies(std::size_t n) const { return mReplies.Await(n).size() == n; }
  std::vector<Reply> Replies() const { return mReplies.Await(mReplies.Count()); }
  std::size_t ReplyCount() const { return mReplies.Count(); }
  // "NAME key=value, key=value", in order.
  std::vector<std::string> Events() const { return mEvents.Await(mEvents.Count()); }

  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) override {
    Reply reply = Read(*packet);
    reply.wellFormed = reply.wellFormed && waitMs == 0xFFFFFFFF;
    if (mHook) {
      mHook(reply);
    }
    mReplies.Add(std::move(reply));
    return 0;
  }
  void Trace(std::uint64_t, const char* event, const VelTraceAttribute* attributes, std::size_t count) override {
    std::string text = event;
    for (std::size_t i = 0; i < count; ++i) {
      text += std::string(i == 0 ? " " : ", ") + attributes[i].key + "=" + attributes[i].value;
    }
    mEvents.Add(std::move(text));
  }

 private:
  static Reply Read(const VelPacket& packet) {
    const std::span<const std::uint8_t> wire = packet.Wire();
    Reply reply{.command = packet.GetCommand(), .reqId = packet.GetReqId(), .devId = packet.GetDevId(), .payload = {}};
    if (wire.size() >= VelPacket::kHeaderSize) {
      const auto tail = wire.subspan(VelPacket::kByteOrderOffset, 4);  // Byte order and reserved.
      reply.wellFormed = wire[0] == VelPacket::kMagic && packet.GetPacketSize() == wire.size() &&
                         std::ranges::all_of(tail, [](std::uint8_t byte) { return byte == 0; });
      reply.payload.assign(wire.begin() + VelPacket::kHeaderSize, wire.end());
    }
    return reply;
  }

  SendHook mHook;
  BackendMaker mBackendMaker;
  Collected<Reply> mReplies;
  Collected<std::string> mEvents;
};

}  // namespace vel

#endif
