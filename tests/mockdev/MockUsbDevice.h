#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_USB_DEVICE_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_USB_DEVICE_H

#include <map>

#include "mockdev/MockUsb.h"

namespace vel {

// A mocked device with every kind of endpoint.
//
//   0x81 interrupt IN, 0x82 bulk IN            Pattern()
//   0x03 interrupt OUT, 0x02 bulk OUT          take anything
//   0x83 interrupt IN, 0x84 bulk IN            never have anything
//   0x85 bulk IN                               halted until that is cleared, then empty
//   0x86, 0x06 isochronous, in setting 1 of interface 1: packets end as SetPacketStatuses says
class MockUsbDevice final : public MockUsb {
 public:
  static constexpr std::uint16_t kProduct = 0x0001;
  // Vendor requests. Fetch brings what store took, silent is never answered.
  enum Request : std::uint8_t { kStore = 1, kFetch = 1, kStall = 2, kSilent = 3 };

  MockUsbDevice();
  ~MockUsbDevice() override { static_cast<void>(AwaitClosed()); }

  // Kernel's status of each isochronous packet (0 or a negated errno), in turn. A packet that fails is half empty.
  void SetPacketStatuses(std::vector<int> statuses) VEL_EXCLUDES(mMutex);
  // What an OUT endpoint took last.
  Bytes Taken(std::uint8_t endpoint) VEL_EXCLUDES(mMutex);
  static Bytes Pattern(std::size_t length);

 private:
  bool Serve(Urb& urb, Bytes out) override VEL_REQUIRES(mMutex);
  bool ServeRequest(Urb& urb, std::span<const std::uint8_t> setup, Bytes out, Bytes& answer) override
      VEL_REQUIRES(mMutex);
  void ServeIso(Urb& urb) VEL_REQUIRES(mMutex);

  std::vector<int> mPacketStatuses VEL_GUARDED_BY(mMutex);
  std::map<std::uint8_t, Bytes> mTaken VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
