#ifndef VIRTUSB_TESTS_WINDOWS_MOCKDEV_WAITING_USB_H
#define VIRTUSB_TESTS_WINDOWS_MOCKDEV_WAITING_USB_H

#include <cstdint>
#include <list>
#include <utility>
#include <vector>

#include <libusb-1.0/libusb.h>

#include "vel/Mutex.h"

namespace vel {

using Bytes = std::vector<std::uint8_t>;

// How a transfer ends. Of an OUT transfer all bytes are moved.
struct UsbResult {
  Bytes bytes{};
  int status = 0;                                   // A negated errno: -EPIPE is a stall, any other an error.
  std::vector<std::pair<unsigned, int>> packets{};  // Isochronous: bytes moved, status.
};

struct MockUsb {
  static constexpr std::uint8_t kBus = 1;
};

// Stands in for the one of other systems, where libusb is the real one on a mocked kernel: here the whole of libusb is
// a fake with this one device, whose transfers end when the test says so. One at a time; any thread.
class WaitingUsb final : public MockUsb {
 public:
  static constexpr std::uint8_t kAny = 0xFF;

  WaitingUsb();
  WaitingUsb(const WaitingUsb&) = delete;
  WaitingUsb& operator=(const WaitingUsb&) = delete;
  ~WaitingUsb();

  std::uint8_t Address() const { return 4; }
  // The oldest transfer that waits on this endpoint (0: control) ends so. False when there is none.
  bool Complete(std::uint8_t endpoint, const UsbResult& result = {}) VEL_EXCLUDES(mMutex);
  // It has moved this, and goes on waiting.
  void MovePart(std::uint8_t endpoint, const UsbResult& result) VEL_EXCLUDES(mMutex);
  Bytes LastSent() VEL_EXCLUDES(mMutex);
  // Waits until so many transfers are pending.
  [[nodiscard]] bool AwaitPending(std::size_t count) VEL_EXCLUDES(mMutex);

  // For the functions of libusb.
  int Submit(libusb_transfer* transfer) VEL_EXCLUDES(mMutex);
  int Cancel(libusb_transfer* transfer) VEL_EXCLUDES(mMutex);
  int HandleEvents(const timeval& limit) VEL_EXCLUDES(mMutex);
  void Interrupt() VEL_EXCLUDES(mMutex);
  int configuration = 1;
  bool driverActive[2] = {true, true};

 private:
  using Transfers = std::list<libusb_transfer*>;
  libusb_transfer* TakeDone() VEL_EXCLUDES(mMutex);  // Null: none is done.
  Transfers::iterator Fill(std::uint8_t endpoint, const UsbResult& result) VEL_REQUIRES(mMutex);

  Mutex mMutex;
  CondVar mChanged;
  Transfers mPending VEL_GUARDED_BY(mMutex);
  Transfers mDone VEL_GUARDED_BY(mMutex);
  Bytes mSent VEL_GUARDED_BY(mMutex);
  bool mHandled VEL_GUARDED_BY(mMutex) = false;  // By a thread that is calling back.
  unsigned mRounds VEL_GUARDED_BY(mMutex) = 0;   // Of events that were handled.
  bool mInterrupted VEL_GUARDED_BY(mMutex) = false;
};

}  // namespace vel

#endif
