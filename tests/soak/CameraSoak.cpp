// The emulated camera at its own pace, through the module, synthetic or a video of which some pictures are broken:
// pictures in time and not more and more of them waiting, and an application that does something else at any moment.
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

#include <gmock/gmock.h>

#include "io/UsbIoXferInfo.h"
#include "policys/stream/CameraGuest.h"
#include "soak/Soak.h"

namespace vel::test {
namespace {

constexpr std::size_t kAhead = 3;

class CameraSoak final : public SoakSuite {
 public:
  CameraSoak() {
    std::ofstream video(mVideo, std::ios::binary);
    for (const char* picture : {"natural", "natural", "natural", "natural_cut"}) {
      video << std::ifstream(std::string(JPEG_PICTURES) + picture, std::ios::binary).rdbuf();
    }
  }
  ~CameraSoak() override { unlink(mVideo.c_str()); }

  const char* Unit() const override { return "pictures"; }

  void Round(SoakRun& run) override {
    const bool plays = run.OneIn(2);
    CameraGuest guest(plays ? DeviceIdentity{3, 0x80, 0xFF00, 0xFFFE, mVideo}
                            : DeviceIdentity{3, 0x85, 0xFF00, 0xFFFE, ""});
    if (run.Pick(4) != 0) {
      guest.AllowTranscoding();
    }
    guest.Open();
    for (std::uint32_t streams = 1 + run.Pick(3); streams > 0; --streams) {
      guest.Negotiate(1, static_cast<std::uint8_t>(1 + run.Pick(plays ? 1 : 2)));
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

  const std::string mVideo = testing::TempDir() + "soak_video_" + std::to_string(getpid());
};

}  // namespace

std::unique_ptr<SoakSuite> MakeCameraSoak() {
  return std::make_unique<CameraSoak>();
}

}  // namespace vel::test
