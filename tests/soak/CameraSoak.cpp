// The emulated camera at its own pace, through the module: pictures in time and not more and more of them waiting, and
// an application that does something else at any moment.
#include <memory>

#include <gmock/gmock.h>

#include "io/UsbIoXferInfo.h"
#include "policys/stream/CameraGuest.h"
#include "soak/Soak.h"

namespace vel::test {
namespace {

constexpr std::size_t kAhead = 3;

class CameraSoak final : public SoakSuite {
 public:
  const char* Unit() const override { return "pictures"; }

  void Round(SoakRun& run) override {
    CameraGuest guest({3, 0x85, 0xFF00, 0xFFFE, ""});
    if (run.Pick(4) != 0) {
      guest.AllowTranscoding();
    }
    guest.Open();
    for (std::uint32_t streams = 1 + run.Pick(3); streams > 0; --streams) {
      guest.Negotiate(1, static_cast<std::uint8_t>(1 + run.Pick(2)));
      guest.Start();
      ASSERT_LE(guest.Rest().size(), kAhead);  // Reads of the stream before: answered, whichever way.
      for (std::uint32_t left = run.Pick(40); left > 0; --left, ++run.work) {
        ASSERT_FALSE(guest.Picture(kAhead).empty()) << "timed out behind " << run.work << " pictures";
      }
      End(run, guest);
    }
  }

 private:
  // One way to end a stream, or to leave it to the next one.
  static void End(SoakRun& run, CameraGuest& guest) {
    const std::uint32_t way = run.Pick(4);
    run.faults += way == 0 ? 0 : 1;
    if (way == 1) {
      guest.Start(2);
    } else if (way == 2) {
      EXPECT_EQ(guest.Remote().Status(Command::kCloseUsbDev), 0);
      EXPECT_EQ(guest.Remote().Status(Command::kOpenUsbDev), 0);
    } else if (way == 3) {
      guest.Stop();
    }
  }
};

}  // namespace

std::unique_ptr<SoakSuite> MakeCameraSoak() {
  return std::make_unique<CameraSoak>();
}

}  // namespace vel::test
