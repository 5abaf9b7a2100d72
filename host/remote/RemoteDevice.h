#ifndef VIRTUSB_HOST_REMOTE_REMOTE_DEVICE_H
#define VIRTUSB_HOST_REMOTE_REMOTE_DEVICE_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "remote/PacketChannel.h"
#include "remote/RequestBuilder.h"
#include "vel/Mutex.h"

namespace vel {

// The device did not answer, or answered something that cannot be read.
class RemoteError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The reply to a bulk, interrupt or isochronous transfer.
struct TransferReply {
  std::int32_t status = 0;
  std::vector<std::uint8_t> data;  // For isochronous: the packet table, then the payloads.
  std::uint32_t isoPackets = 0;
};

// The remote side of one redirected device: requests in, replies matched to them. Synchronous requests are matched by
// command and reqID, transfers by command and stream id.
//
// Any thread; each synchronous call blocks its caller for at most the reply time, and throws RemoteError when that is
// over or the channel is closed, Interrupted when this side has closed it.
class RemoteDevice {
 public:
  using Clock = std::chrono::steady_clock;
  using TransferDone = std::function<void(TransferReply)>;

  struct Result {
    std::int32_t value = 0;
    std::vector<std::uint8_t> data;
  };

  static constexpr std::chrono::milliseconds kReplyTime{5000};
  static constexpr std::int32_t kNoDevice = 5;  // Status of a transfer, of enum libusb_transfer_status.

  // Starts the channel.
  explicit RemoteDevice(std::unique_ptr<PacketChannel> channel, std::uint32_t devId = 1,
                        std::chrono::milliseconds replyTime = kReplyTime);
  RemoteDevice(const RemoteDevice&) = delete;
  RemoteDevice& operator=(const RemoteDevice&) = delete;
  // Closes the channel. Transfers that are still pending are forgotten.
  ~RemoteDevice();

  // Closes the channel: whatever waits here throws Interrupted, and whatever begins. Any thread, once.
  void Interrupt() VEL_EXCLUDES(mMutex);

  // A command without fields whose reply is one i32.
  std::int32_t Status(Command command);
  std::int32_t SetConfiguration(std::uint32_t configuration);
  std::int32_t SetInterfaceAltSetting(std::uint32_t interfaceNumber, std::uint32_t altSetting);
  std::int32_t SetRedirPolicy(std::span<const std::uint8_t> text);
  std::int32_t CancelTransfer(std::uint32_t streamId);
  // The 18 bytes.
  std::vector<std::uint8_t> GetDeviceDescriptor();
  // The serialised configuration; empty when the device has none.
  std::vector<std::uint8_t> GetConfiguration();
  Result GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint32_t length);
  Result ControlTransfer(const ControlSetup& setup, std::span<const std::uint8_t> data = {},
                         std::uint32_t timeoutMs = 1000);
  void Ping(std::uint32_t streamId, std::uint64_t timestamp);

  // Sends a transfer and waits for its reply.
  TransferReply Transfer(Command command, std::uint8_t endpoint, std::uint32_t length,
                         std::span<const std::uint8_t> data = {});
  TransferReply IsoTransfer(std::uint8_t endpoint, std::span<const std::uint32_t> lengths,
                            std::span<const std::uint8_t> payload = {});

  // Sends a transfer; `done` is called on the channel's thread when the reply comes, with kNoDevice when the channel
  // closes before, and never when none comes. It must not throw. Returns the stream id.
  std::uint32_t SubmitTransfer(Command command, std::uint8_t endpoint, std::uint32_t length,
                               std::span<const std::uint8_t> data, TransferDone done);
  std::uint32_t SubmitIsoTransfer(std::uint8_t endpoint, std::span<const std::uint32_t> lengths,
                                  std::span<const std::uint8_t> payload, TransferDone done);

 private:
  using Key = std::uint64_t;

  void OnPacket(std::unique_ptr<VelPacket> packet);
  void OnClosed(const std::string& why);
  [[noreturn]] void ThrowGone() const VEL_REQUIRES(mMutex);
  // After `waiting` in vain, which began as `what`.
  std::string SilenceText(const std::string& what, std::chrono::milliseconds waiting) const VEL_REQUIRES(mMutex);
  std::chrono::milliseconds TimeToReply() VEL_EXCLUDES(mMutex);
  // Sends what `build` makes for a fresh reqID and waits for the reply's payload.
  std::vector<std::uint8_t> Exchange(Command command,
                                     const std::function<std::unique_ptr<VelPacket>(RequestId)>& build);
  std::int32_t ExchangeStatus(Command command, const std::function<std::unique_ptr<VelPacket>(RequestId)>& build);
  Result ExchangeResult(Command command, const std::function<std::unique_ptr<VelPacket>(RequestId)>& build);
  std::uint32_t Submit(Command command, TransferDone done,
                       const std::function<std::unique_ptr<VelPacket>(std::uint32_t)>& build);
  // Waits for the reply of the transfer that `submit` sends and whose stream id it returns.
  TransferReply Await(Command command, const std::function<std::uint32_t(TransferDone)>& submit);

  const std::unique_ptr<PacketChannel> mChannel;
  const std::uint32_t mDevId;
  const std::chrono::milliseconds mReplyTime;
  const PacketChannel::Contact mContact;

  Mutex mMutex;
  CondVar mChanged;
  bool mClosed VEL_GUARDED_BY(mMutex) = false;
  bool mInterrupted VEL_GUARDED_BY(mMutex) = false;
  std::string mWhyClosed VEL_GUARDED_BY(mMutex);
  bool mAnswered VEL_GUARDED_BY(mMutex) = false;
  std::uint64_t mUnasked VEL_GUARDED_BY(mMutex) = 0;  // Packets that answer nothing which waits for an answer.
  std::uint8_t mNextReqId VEL_GUARDED_BY(mMutex) = 0;
  std::uint32_t mNextStreamId VEL_GUARDED_BY(mMutex) = 1;
  std::unordered_map<Key, std::optional<std::vector<std::uint8_t>>> mSync VEL_GUARDED_BY(mMutex);
  std::unordered_map<Key, TransferDone> mTransfers VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
