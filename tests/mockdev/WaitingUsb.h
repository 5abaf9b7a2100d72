#ifndef VIRTUSB_TESTS_MOCKDEV_WAITING_USB_H
#define VIRTUSB_TESTS_MOCKDEV_WAITING_USB_H

#include <algorithm>
#include <cstdint>
#include <list>
#include <span>
#include <utility>
#include <vector>

#include "mockdev/MockUsb.h"

namespace vel {

// How a transfer ends. Of an OUT transfer all bytes are moved.
struct UsbResult {
  Bytes bytes{};
  int status = 0;                                   // As the kernel has it: a negated errno.
  std::vector<std::pair<unsigned, int>> packets{};  // Isochronous: bytes moved, status.
};

// A mocked device whose transfers end when the test says so. 0x83 and 0x04 are isochronous. Configuration 1 has both
// interfaces, 2 only the second.
class WaitingUsb final : public MockUsb {
 public:
  static constexpr std::uint8_t kAny = 0xFF;

  WaitingUsb()
      : MockUsb({.product = 1,
                 .usbClass = 0,
                 .config = {9,  2, 34, 0, 2, 1,    0,  0x80, 50, 9, 4, 0,    0,   0,  255, 0, 0, 0,
                            9,  4, 1,  0, 0, 255,  0,  0,    0,  7, 5, 0x83, 1,   64, 0,   1, 9, 2,
                            18, 0, 1,  2, 0, 0x80, 50, 9,    4,  1, 0, 0,    255, 0,  0,   0},
                 .configurations = 2,
                 .endpoint = 3,
                 .lastSetting = 1}) {
    Plug();
  }
  ~WaitingUsb() override { static_cast<void>(AwaitClosed()); }

  // The oldest transfer that waits on this endpoint (0: control) ends so. False when there is none.
  bool Complete(std::uint8_t endpoint, const UsbResult& result = {}) {
    const MutexLock lock(mMutex);
    const auto urb = Fill(endpoint, result);
    if (urb == mPending.end()) {
      return false;
    }
    urb->status = result.status;
    mDone.splice(mDone.end(), mPending, urb);
    Changed();
    return true;
  }
  // It has moved this, and goes on waiting.
  void MovePart(std::uint8_t endpoint, const UsbResult& result) {
    const MutexLock lock(mMutex);
    Fill(endpoint, result);
  }
  Bytes LastSent() {
    const MutexLock lock(mMutex);
    return mSent;
  }

 private:
  bool Serve(Urb& /*urb*/, Bytes out) override VEL_REQUIRES(mMutex) {
    mSent = std::move(out);
    return false;
  }
  bool ServeRequest(Urb& /*urb*/, std::span<const std::uint8_t> /*setup*/, Bytes /*out*/, Bytes& /*answer*/) override
      VEL_REQUIRES(mMutex) {
    return false;
  }
  std::list<Urb>::iterator Fill(std::uint8_t endpoint, const UsbResult& result) VEL_REQUIRES(mMutex) {
    const auto urb =
        std::ranges::find_if(mPending, [&](const Urb& each) { return endpoint == kAny || each.endpoint == endpoint; });
    if (urb == mPending.end()) {
      return urb;
    }
    const bool isIso = urb->type == USBDEVFS_URB_TYPE_ISO;
    urb->moved = isIso ? 0 : urb->IsIn() || urb->endpoint == 0 ? result.bytes.size() : urb->length;
    urb->in = urb->endpoint == 0 ? Bytes(8) : Bytes();  // A request's setup comes first.
    if (urb->IsIn() || urb->endpoint == 0) {
      urb->in.insert(urb->in.end(), result.bytes.begin(), result.bytes.end());
    }
    for (std::size_t i = 0; isIso && i < urb->Packets().size(); ++i) {
      usbdevfs_iso_packet_desc& packet = urb->Packets()[i];
      packet.actual_length = i < result.packets.size() ? result.packets[i].first : packet.length;
      packet.status = static_cast<unsigned>(i < result.packets.size() ? result.packets[i].second : 0);
    }
    return urb;
  }

  Bytes mSent VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
