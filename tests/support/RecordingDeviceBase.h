#ifndef VIRTUSB_TESTS_SUPPORT_RECORDING_DEVICE_BASE_H
#define VIRTUSB_TESTS_SUPPORT_RECORDING_DEVICE_BASE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "vel/Mutex.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// A packet that the module sent.
struct Reply {
  std::uint16_t command = 0;
  std::uint8_t reqId = 0;
  std::uint32_t devId = 0;
  std::vector<std::uint8_t> payload;
  bool wellFormed = false;  // Magic, byte order, reserved bytes and the length field are what they have to be.
  std::thread::id thread;
};

// The framework's side of one redirected device: says which device it is and keeps what the module
// sends. Any thread.
class RecordingDeviceBase final : public VelDeviceBase {
 public:
  struct Identity {
    std::uint8_t bus = 3;
    std::uint8_t address = 0x85;
    std::uint16_t vendorId = 0xFF00;
    std::uint16_t productId = 0xFF06;
    std::uint32_t devId = 9;
    std::string args = "";
  };
  static constexpr std::uint8_t kReplyReqId = 0x77;  // Of give-backs.

  // Called in Send, before the reply is kept, on the module's thread; may block.
  using SendHook = std::function<void(const Reply&)>;

  RecordingDeviceBase() : RecordingDeviceBase(Identity{}) {}
  explicit RecordingDeviceBase(Identity identity) : mIdentity(std::move(identity)) {}

  // To be set before a driver is made.
  void OnSend(SendHook hook) { mHook = std::move(hook); }
  void CountRepliesOnly() { mKeepsReplies = false; }
  void AnswerFailedTransfers() { mAnswersFailedTransfers = true; }

  // False when fewer than `n` replies, counted from the start, have come by the deadline.
  [[nodiscard]] bool WaitForReplies(std::size_t n) const;
  std::vector<Reply> Replies() const;
  std::size_t ReplyCount() const;
  // "NAME key=value, key=value", in order.
  std::vector<std::string> Events() const;
  std::vector<std::uint64_t> SpanIds() const;

  std::uint8_t GetBusNumber() const override { return mIdentity.bus; }
  std::uint8_t GetDeviceAddress() const override { return mIdentity.address; }
  int IsRedirected() const override { return 1; }
  std::uint32_t GetDevId() const override { return mIdentity.devId; }
  std::uint32_t GetChannelId() const override { return 4; }
  std::uint16_t GetVendorId() const override { return mIdentity.vendorId; }
  std::uint16_t GetProductId() const override { return mIdentity.productId; }
  const char* GetArgs() const override { return mIdentity.args.c_str(); }
  std::uint8_t TakeReplyReqId(std::uint16_t, std::uint32_t) override { return kReplyReqId; }
  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) override;
  void Trace(std::uint64_t spanId, const char* event, const VelTraceAttribute* attributes, std::size_t count) override;
  bool AnswersFailedTransfers() const override { return mAnswersFailedTransfers; }

 private:
  const Identity mIdentity;
  SendHook mHook;
  bool mKeepsReplies = true;
  bool mAnswersFailedTransfers = false;
  mutable Mutex mMutex;
  mutable CondVar mReplied;
  std::vector<Reply> mReplies VEL_GUARDED_BY(mMutex);
  std::size_t mReplyCount VEL_GUARDED_BY(mMutex) = 0;
  std::vector<std::string> mEvents VEL_GUARDED_BY(mMutex);
  std::vector<std::uint64_t> mSpanIds VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
