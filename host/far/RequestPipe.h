#ifndef VIRTUSB_HOST_FAR_REQUEST_PIPE_H
#define VIRTUSB_HOST_FAR_REQUEST_PIPE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "remote/PacketChannel.h"
#include "remote/RequestBuilder.h"
#include "vel/Mutex.h"

namespace vel {

// Requests to one redirected device, any number of them under way, and their replies.
//
// Synchronous requests are answered in their order, and are matched so: with more than 256 under way their ids repeat.
// One that is passed over by the reply of a later one gets none any more. Requests are sent by any thread but the
// channel's: a reply must be taken whatever a request waits for.
class RequestPipe {
 public:
  struct Reply {
    std::int32_t value = 0;              // A LIBUSB_ERROR_* below 0, also for one that is never answered.
    std::span<const std::uint8_t> data;  // Valid during the call.
  };
  // On the channel's thread, or the caller's when the channel is closed. Once, always.
  using Done = std::function<void(const Reply&)>;
  using Build = std::function<std::unique_ptr<VelPacket>(RequestId)>;

  struct Receiver {
    // A transfer's reply, its stream id and status not looked at. On the channel's threads.
    std::function<void(std::unique_ptr<VelPacket>)> onTransfer;
    // Nothing is answered any more, or the device has left; why, for people. Once at most; also on threads that send.
    std::function<void(const std::string& why)> onLost;
  };

  explicit RequestPipe(std::unique_ptr<PacketChannel> channel) : mChannel(std::move(channel)) {}
  RequestPipe(const RequestPipe&) = delete;
  RequestPipe& operator=(const RequestPipe&) = delete;
  ~RequestPipe() { Close(); }

  void Start(Receiver receiver);
  // How long the first reply may take, at least.
  std::chrono::milliseconds StartTime() const { return mChannel->GetContact().startTime; }
  // A reply has said that failed and cancelled transfers are answered.
  bool AnswersFailures() const { return mAnswersFailures; }
  // How long the quickest synchronous request took: what the way costs while nothing else is on it.
  std::chrono::microseconds LeastRoundTrip() const { return mLeastRoundTrip.load(); }
  // Why nothing is answered any more; empty as long as it is.
  std::string WhyLost() VEL_EXCLUDES(mMutex);
  // Sends a synchronous request. With very many under way it is refused with LIBUSB_ERROR_NO_MEM.
  void Ask(Command command, Done done, const Build& build) VEL_EXCLUDES(mSendMutex);
  void Ask(Command command, Done done = {});
  // Sends a transfer.
  void Send(std::unique_ptr<VelPacket> packet) VEL_EXCLUDES(mSendMutex);
  RequestId TransferId() const { return {0, kDevId}; }
  // The receiver is not called any more when it returns. Not on the channel's threads.
  void Close() VEL_EXCLUDES(mSendMutex);

 private:
  static constexpr std::uint32_t kDevId = 1;
  // A guest may ask on and on, and take back, what a far end never answers.
  static constexpr std::size_t kMaxWaiting = 65536;

  using Clock = std::chrono::steady_clock;

  struct Waiting {
    Command command;
    std::uint8_t reqId;
    Done done;
    Clock::time_point sent;
  };

  void OnPacket(std::unique_ptr<VelPacket> packet);
  void OnSyncReply(Command command, const VelPacket& packet);
  void OnLost(const std::string& why);

  const std::unique_ptr<PacketChannel> mChannel;
  Receiver mReceiver;
  std::atomic<bool> mAnswersFailures{false};
  std::atomic<std::chrono::microseconds> mLeastRoundTrip{
      std::chrono::microseconds::max()};  // Channel's threads set it.
  Mutex mSendMutex;                       // Requests leave in the order in which they wait. Taken before mMutex.
  Mutex mMutex;
  std::uint8_t mNextReqId VEL_GUARDED_BY(mMutex) = 0;
  std::string mWhyLost VEL_GUARDED_BY(mMutex);
  std::deque<Waiting> mWaiting VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
