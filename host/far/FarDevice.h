#ifndef VIRTUSB_HOST_FAR_FAR_DEVICE_H
#define VIRTUSB_HOST_FAR_FAR_DEVICE_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "far/Alarms.h"
#include "far/ControlRouter.h"
#include "far/DeviceFacts.h"
#include "far/FarCamera.h"
#include "far/GuestUrbs.h"
#include "far/RequestPipe.h"
#include "remote/StopWatcher.h"
#include "vel/Mutex.h"

namespace vel {

// One redirected device as a guest's kernel sees it: takes URBs, and answers each of them once.
//
// Threads: the guest's thread calls Submit and Unlink; answers come on it where nothing had to be asked, and otherwise
// on the channel's threads. A thread of its own is there for emulated devices' periodic endpoints, whose pace it
// keeps, one for what has a time limit, and one for a camera that streams. The channel's threads never send.
class FarDevice final : private FarCamera::Port {
 public:
  struct Options {
    bool transcode = true;                         // A camera's raw pictures come as H.264.
    std::chrono::milliseconds replyTime{10000};    // For what is asked at the start.
    std::chrono::milliseconds controlLimit{3000};  // For the device to answer a control request.
    std::chrono::milliseconds cancelLimit{2000};   // For the end of a transfer that was cancelled.
    std::function<void(const std::string&)> note;  // A line for people. Any thread; may be empty.
    std::function<void()> onLatePicture;           // One that the guest was too slow for. Any thread; may be empty.
    std::function<void()> onGone;                  // Once, when IsGone begins to be true. Any thread; may be empty.
    const StopSignal* stop = nullptr;              // Cuts off what still waits for the far end; outlives the device.
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
  void Connect(UrbGuest& guest);
  // The guest is gone: nothing of its is left, and this machine's drivers have the device back. Waits for calls of
  // the guest, which must not block any more.
  void Disconnect();

  // Guest's thread.
  void Submit(const Urb& urb);
  void Unlink(const UnlinkRequest& request) VEL_EXCLUDES(mPaceMutex);

 private:
  using Clock = Alarms::Clock;

  // Null where nothing stops it.
  std::unique_ptr<StopWatcher> CutOffAtStop(std::chrono::milliseconds grace);
  // Closes the channel when this takes too long, so that it ends.
  void WithinTime(const std::function<void()>& send);
  void SubmitControl(const Urb& urb);
  void SubmitTransfer(const Urb& urb, const EndpointType& type);
  // For the endpoints of an emulated device, which answers at once: it is asked at the bus's pace.
  void SubmitPaced(const Urb& urb, std::uint32_t firstStream, std::vector<std::unique_ptr<VelPacket>> requests)
      VEL_EXCLUDES(mPaceMutex);
  void SendDue(std::uint32_t generation, std::uint32_t seqnum) VEL_EXCLUDES(mPaceMutex);
  void Send(std::vector<std::unique_ptr<VelPacket>> requests);
  void GiveUp(std::uint32_t generation, std::uint32_t seqnum);

  // Channel's threads.
  void OnTransfer(std::unique_ptr<VelPacket> packet);
  void OnLost(const std::string& why);
  void TellGone();

  // FarCamera::Port
  void SendRead(std::uint8_t endpoint, std::uint32_t streamId, std::uint32_t room) override;
  void CancelRead(std::uint32_t streamId) override;
  std::uint32_t NewStreamId() override;
  void Note(const std::string& line) override;
  void OnLatePicture() override;
  void SendSetting(std::uint8_t interfaceNumber, std::uint8_t setting) override;
  bool AnswerHeld(const FarCamera::Fill& fill) override;
  std::chrono::microseconds LeastRoundTrip() const override { return mPipe.LeastRoundTrip(); }
  void SendCancel(std::uint32_t streamId);

  const Options mOptions;
  std::atomic<bool> mGone{false};
  std::atomic<bool> mGoneIsTold{false};
  std::atomic<bool> mReady{false};         // Transfers are answered: all members are there.
  std::atomic<std::uint32_t> mLeaving{0};  // Counts what has to end within its time.
  std::atomic<std::uint32_t> mNextStream{1};

  Mutex mPaceMutex;                                                        // A paced request leaves before its cancel.
  std::array<Clock::time_point, 256> mNextDue VEL_GUARDED_BY(mPaceMutex);  // By endpoint address.

  GuestUrbs mUrbs;
  RequestPipe mPipe;
  std::unique_ptr<StopWatcher> mCutOff;
  DeviceFacts mFacts;
  ControlRouter mRouter;
  std::unique_ptr<FarCamera> mCamera;  // Null for what is none.
  std::size_t mMaxPackets = 0;         // Of an isochronous request.
  Alarms mAlarms;                      // Of paced URBs. They send, and so may wait for a far end that does not read.
  Alarms mLimits;                      // Theirs do not.
};

}  // namespace vel

#endif
