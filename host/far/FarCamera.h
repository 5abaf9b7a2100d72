#ifndef VIRTUSB_HOST_FAR_FAR_CAMERA_H
#define VIRTUSB_HOST_FAR_FAR_CAMERA_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <thread>

#include "far/UrbMapper.h"
#include "far/UsbipWire.h"
#include "remote/CameraModel.h"
#include "vel/Mutex.h"

namespace vel {

// A camera's stream between the module, which answers each read with a whole picture, and a guest's camera driver,
// which reads payloads. The driver negotiates with the device; the requests are only looked at.
//
// The guest's URBs wait until there is a picture, and are filled without a pace then. The newest picture wins.
//
// Threads: the guest's thread calls everything but TakeReply, which comes on the channel's. A thread of the stream's
// own, between Start and Stop, reads, decodes and fills.
class FarCamera {
 public:
  // Fills a URB: its packets, or for a bulk URB its length; returns the data.
  using Fill = std::function<std::span<const std::uint8_t>(std::span<UrbPacket>, std::uint32_t)>;

  // What a camera asks of its device. Not on the channel's threads.
  class Port {
   public:
    Port() = default;
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    virtual ~Port() = default;
    virtual std::uint32_t NewStreamId() = 0;
    virtual void SendRead(std::uint8_t endpoint, std::uint32_t streamId, std::uint32_t room) = 0;
    virtual void CancelRead(std::uint32_t streamId) = 0;
    virtual void SendSetting(std::uint8_t interfaceNumber, std::uint8_t setting) = 0;
    virtual void Note(const std::string& line) = 0;
    // A picture gave way to a newer one before a URB has seen any of it.
    virtual void OnLatePicture() = 0;
    // Answers the guest's oldest URB that waits; false when none does.
    virtual bool AnswerHeld(const Fill& fill) = 0;
    // What the way to the camera and back costs while nothing else is on it.
    virtual std::chrono::microseconds LeastRoundTrip() const = 0;
  };

  FarCamera(CameraModel model, Port& port) : mModel(std::move(model)), mPort(port) {}
  FarCamera(const FarCamera&) = delete;
  FarCamera& operator=(const FarCamera&) = delete;
  ~FarCamera() { Stop(); }

  bool Streams(std::uint8_t endpoint) const { return endpoint == mModel.endpoint; }
  // A control request is about to be passed on, and was.
  void BeforeRequest(const ControlSetup& setup, std::span<const std::uint8_t> data);
  void AfterRequest(const ControlSetup& setup);
  // A URB of the streaming endpoint waits.
  void OnUrb() VEL_EXCLUDES(mMutex);
  // Ends the stream: its reads are cancelled.
  void Stop() VEL_EXCLUDES(mMutex);

  // Takes the packet when it answers one of this camera's reads; `answer` points into it.
  bool TakeReply(const TransferAnswer& answer, std::unique_ptr<VelPacket>& packet) VEL_EXCLUDES(mMutex);

 private:
  using Clock = std::chrono::steady_clock;

  struct Arrival {
    std::unique_ptr<VelPacket> packet;
    TransferAnswer answer;
  };
  struct Agreed {
    std::uint8_t formatIndex = 0;
    std::uint8_t frameIndex = 0;
    std::uint32_t payloadBytes = 0;
  };
  class Pictures;

  bool IsBulk() const { return mModel.settings.empty(); }
  void Start() VEL_EXCLUDES(mMutex);
  void Run(const CameraMode& mode);
  void Read() VEL_EXCLUDES(mMutex);
  // Sends reads until so many are in flight or answered and not looked at: a slow decoder is not sent more than it
  // takes.
  void ReadUpTo(int count) VEL_EXCLUDES(mMutex);
  // Waits for something to do; a URB is nothing without a picture for it. False when the stream is to end.
  bool Await(bool wantsUrb, std::deque<Arrival>& arrivals) VEL_EXCLUDES(mMutex);

  const CameraModel mModel;
  Port& mPort;
  Agreed mAgreed;  // Guest's thread, and the stream's, which begins after it was set.
  std::thread mThread;

  Mutex mMutex;
  CondVar mChanged;
  bool mStopped VEL_GUARDED_BY(mMutex) = true;
  bool mUrbCame VEL_GUARDED_BY(mMutex) = false;           // Since the thread has looked for one.
  bool mWantsUrb VEL_GUARDED_BY(mMutex) = false;          // It waits for one.
  std::set<std::uint32_t> mReads VEL_GUARDED_BY(mMutex);  // Stream ids of the reads in flight.
  std::deque<Arrival> mArrivals VEL_GUARDED_BY(mMutex);
  std::deque<Clock::time_point> mRetries VEL_GUARDED_BY(mMutex);  // When reads that failed are sent again.
};

}  // namespace vel

#endif
