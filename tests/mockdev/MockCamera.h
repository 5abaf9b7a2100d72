#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_CAMERA_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_CAMERA_H

#include <thread>

#include "mockdev/MockPayloads.h"
#include "mockdev/MockUsb.h"

namespace vel {

// A mocked UVC camera, plugged in. Interface 1 streams: isochronous from setting 1, or bulk from its only setting.
// Format 1 is YUYV and 2 MJPEG, frame 1 is 640x480 and 2 320x240.
//
// Its bus moves 8000 packets a second, and stands still while no transfer waits, so that nothing is lost because this
// process was kept from running.
class MockCamera final : public MockUsb {
 public:
  static constexpr std::uint16_t kProduct = 0x0002;

  struct Options {
    bool bulk = false;
    MockPayloads::Faults faults{};
  };

  explicit MockCamera(const Options& options);
  ~MockCamera() override;

  // What it shows, again and again.
  void Show(std::vector<Bytes> pictures) VEL_EXCLUDES(mMutex);
  // How many frames it sends from now on; the bus runs on without them.
  void Allow(int frames) VEL_EXCLUDES(mMutex);
  // The endpoint stalls until that is cleared.
  void Halt() VEL_EXCLUDES(mMutex);
  // What it sent of each frame and what was not lost on the bus, in order.
  std::vector<Bytes> Sent() VEL_EXCLUDES(mMutex);

 private:
  bool Serve(Urb& urb, Bytes out) override VEL_REQUIRES(mMutex);
  bool ServeRequest(Urb& urb, std::span<const std::uint8_t> setup, Bytes out, Bytes& answer) override
      VEL_REQUIRES(mMutex);

  void RunBus() VEL_EXCLUDES(mMutex);
  // Isochronous transfers move on without data, bulk ones wait for it.
  bool IsReady() const VEL_REQUIRES(mMutex);
  // Completes the first transfer that waits.
  void ServeStream() VEL_REQUIRES(mMutex);

  const bool mBulk;
  bool mEnding VEL_GUARDED_BY(mMutex) = false;
  Bytes mControl VEL_GUARDED_BY(mMutex) = Bytes(34);  // Probe and commit.
  MockPayloads mPayloads VEL_GUARDED_BY(mMutex);
  std::thread mBus;
};

}  // namespace vel

#endif
