#ifndef VIRTUSB_TESTS_SUPPORT_FAKE_DEVICE_BASE_H
#define VIRTUSB_TESTS_SUPPORT_FAKE_DEVICE_BASE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "protocol/VelPacket.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// The framework's handle of a device, as far as tests, benchmarks and fuzz targets have it alike: it says which device
// it is, and hears nothing. What becomes of a reply is the derived class's.
class FakeDeviceBase : public VelDeviceBase {
 public:
  struct Identity {
    std::uint8_t bus = 3;
    std::uint8_t address = 0x85;  // Above 0x7F: emulated.
    std::uint16_t vendorId = 0xFF00;
    std::uint16_t productId = 0xFF06;
    std::uint32_t devId = 9;
    std::string args = {};
  };
  static constexpr std::uint8_t kReplyReqId = 0x77;  // Of give-backs.

  explicit FakeDeviceBase(Identity identity, bool answersFailedTransfers = false)
      : mIdentity(std::move(identity)), mAnswersFailedTransfers(answersFailedTransfers) {}

  // To be set before a driver is made.
  void AnswerFailedTransfers() { mAnswersFailedTransfers = true; }
  void WantLeanReplies() { mWantsLeanReplies = true; }

  std::uint8_t GetBusNumber() const final { return mIdentity.bus; }
  std::uint8_t GetDeviceAddress() const final { return mIdentity.address; }
  int IsRedirected() const final { return 1; }
  std::uint32_t GetDevId() const final { return mIdentity.devId; }
  std::uint32_t GetChannelId() const final { return 4; }
  std::uint16_t GetVendorId() const final { return mIdentity.vendorId; }
  std::uint16_t GetProductId() const final { return mIdentity.productId; }
  const char* GetArgs() const final { return mIdentity.args.c_str(); }
  std::uint8_t TakeReplyReqId(std::uint16_t, std::uint32_t) final { return kReplyReqId; }
  void Trace(std::uint64_t, const char*, const VelTraceAttribute*, std::size_t) override {}
  bool AnswersFailedTransfers() const final { return mAnswersFailedTransfers; }
  bool WantsLeanReplies() const final { return mWantsLeanReplies; }

 private:
  const Identity mIdentity;
  bool mAnswersFailedTransfers;
  bool mWantsLeanReplies = false;
};

}  // namespace vel

#endif
