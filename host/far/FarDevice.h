#ifndef VIRTUSB_HOST_FAR_FAR_DEVICE_H
#define VIRTUSB_HOST_FAR_FAR_DEVICE_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "far/Alarms.h"
#include "far/ControlRouter.h"
#include "far/DeviceFacts.h"
#include "far/FarCamera.h"
#include "far/RequestPipe.h"
#include "far/UrbGuest.h"
#include "far/UrbTable.h"
#include "vel/Mutex.h"

namespace vel {

// One redirected device as a guest's kernel sees it: takes URBs, and answers each of them once.
//
// Threads: the guest's thread calls Submit and Unlink; answers come on it where nothing had to be asked, and otherwise
// on the channel's threads. A thread of its own is there for emulated devices' periodic endpoints, whose pace it
// keeps, and one for a camera that streams. The channel's threads never send.
class FarDevice final : private FarCamera::Port {
 public:
  struct Options {
    bool transcode = true;                         // A camera's raw pictures come as H.264.
    std::chrono::milliseconds replyTime{10000};    // For what is asked at the start.
    std::chrono::milliseconds controlLimit{3000};  // For the device to answer a control request.
    std::chrono::milliseconds cancelLimit{2000};   // For the end of a transfer that was cancelled.
    std::function<void(const std::string&)> note;  // A line for people. Any thread; may be empty.
  };

  // Opens the device. Throws RemoteError when that fails.
  FarDevice(std::unique_ptr<PacketChannel> channel, Options options);
  FarDevice(const FarDevice&) = delete;
  FarDevice& operator=(const FarDevice&) = delete;
  // Gives the device back.
  ~FarDevice() override;

  const DeviceFacts& Facts() const { return mFacts; }
  // The channel has ended, or the device was pulled out. Any thread.
  bool IsGone() const { return mGone; }

  // A guest takes the device from this machine's drivers; one at a time. `guest` is called until Disconnect returns.
  void Connect(UrbGuest& guest) VEL_EXCLUDES(mMutex);
  // The guest is gone: nothing of its is left, and this machine's drivers have the device back. Waits for calls of
  // the guest, which must not block any more.
  void Disconnect() VEL_EXCLUDES(mMutex);

  // Guest's thread.
  void Submit(const Urb& urb) VEL_EXCLUDES(mMutex);
  void Unlink(const UnlinkRequest& request) VEL_EXCLUDES(mMutex);

 private:
  using Clock = Alarms::Clock;

  // An answer between the table and the guest.
  struct Answer {
    UrbGuest* guest = nullptr;
    std::uint32_t seqnum = 0;
    std::optional<std::uint32_t> unlink;
    std::int32_t status = 0;
    std::uint32_t actualLength = 0;
    std::uint32_t length = 0;
    std::vector<UrbPacket> packets;
    std::vector<std::uint8_t> data;
  };

  // Closes the channel when this takes too long, so that it ends.
  void WithinTime(const std::function<void()>& send);
  void SubmitControl(const Urb& urb);
  void SubmitTransfer(const Urb& urb, const EndpointType& type);
  // False when the URB was answered here.
  bool File(const Urb& urb, Command command, UrbInFlight::Stage stage) VEL_EXCLUDES(mMutex);
  // When the endpoint of an emulated device, which answers at once, is to be asked.
  Clock::time_point Schedule(const Urb& urb) VEL_EXCLUDES(mMutex);
  void SendDue(std::uint32_t generation, std::uint32_t seqnum) VEL_EXCLUDES(mMutex);
  void GiveUp(std::uint32_t generation, std::uint32_t seqnum) VEL_EXCLUDES(mMutex);

  // Takes the URB for its answer; nothing when it is not there, or somebody else's to answer.
  std::optional<Answer> BeginAnswer(std::uint32_t seqnum) VEL_REQUIRES(mMutex);
  void EndAnswer(const Answer& answer, std::span<const std::uint8_t> data) VEL_EXCLUDES(mMutex);
  void AnswerNow(std::uint32_t seqnum, std::int32_t status) VEL_EXCLUDES(mMutex);

  // Channel's threads.
  void OnTransfer(std::unique_ptr<VelPacket> packet) VEL_EXCLUDES(mMutex);
  void OnLost(const std::string& why) VEL_EXCLUDES(mMutex);

  // FarCamera::Port
  void SendRead(std::uint8_t endpoint, std::uint32_t streamId, std::uint32_t room) override;
  void CancelRead(std::uint32_t streamId) override;
  std::uint32_t NewStreamId() override;
  void Note(const std::string& line) override;
  void SendSetting(std::uint8_t interfaceNumber, std::uint8_t setting) override;
  bool AnswerHeld(const FarCamera::Fill& fill) override VEL_EXCLUDES(mMutex);
  void SendCancel(std::uint32_t streamId);

  const Options mOptions;
  std::atomic<bool> mGone{false};
  std::atomic<bool> mReady{false};  // Transfers are answered: all members are there.
  std::atomic<bool> mNotedSilence{false};
  std::atomic<std::uint32_t> mLeaving{0};  // Counts what has to end within its time.
  std::atomic<std::uint32_t> mNextStream{1};

  Mutex mPaceMutex;  // A paced request leaves before its cancel. Taken before mMutex.
  Mutex mMutex;
  CondVar mChanged;
  UrbGuest* mGuest VEL_GUARDED_BY(mMutex) = nullptr;
  std::uint32_t mGeneration VEL_GUARDED_BY(mMutex) = 0;  // Of guests: what comes late is not the next one's.
  std::uint32_t mAnswering VEL_GUARDED_BY(mMutex) = 0;   // Calls of the guest.
  UrbTable mTable VEL_GUARDED_BY(mMutex);
  std::deque<std::uint32_t> mHeld VEL_GUARDED_BY(mMutex);  // URBs that wait for pictures, as far as still there.
  std::array<Clock::time_point, 256> mNextDue VEL_GUARDED_BY(mMutex);  // By endpoint address.

  RequestPipe mPipe;
  DeviceFacts mFacts;
  ControlRouter mRouter;
  std::unique_ptr<FarCamera> mCamera;  // Null for what is none.
  std::size_t mMaxPackets = 0;         // Of an isochronous request.
  Alarms mAlarms;
};

}  // namespace vel

#endif
