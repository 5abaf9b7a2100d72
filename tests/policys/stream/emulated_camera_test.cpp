// The emulated camera with its synthetic source through the module, packets in and replies out.
// `emulated_camera_test --soak SECONDS` streams for longer.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include <gmock/gmock.h>

#include "CameraGuest.h"
#include "Scene.h"
#include "io/DummyUsbIo/DummyCamera.h"
#include "io/UsbIoXferInfo.h"
#include "policys/UVCDecoder.h"

namespace vel::test {
namespace {

using Clock = std::chrono::steady_clock;
using ::testing::SizeIs;

std::chrono::seconds gSoak{3};

const DeviceIdentity kCamera{3, 0x85, 0xFF00, 0xFFFE, ""};

struct Size {
  std::uint8_t frame;  // bFrameIndex.
  int width;
  int height;
  std::size_t Bytes() const { return std::size_t{2} * static_cast<std::size_t>(width * height); }
};
constexpr std::array kSizes = {Size{1, 640, 480}, Size{2, 1280, 720}};

Bytes Painted(const Size& size, std::uint32_t number) {
  Bytes picture(size.Bytes());
  DummyCamera::Paint(picture, static_cast<std::uint32_t>(size.width), static_cast<std::uint32_t>(size.height), number);
  return picture;
}

// The number that a painted picture shows, modulo 256: its first byte is 3 times it.
std::uint32_t NumberOf(const Bytes& picture) {
  constexpr std::uint32_t kInverseOf3 = 171;
  return picture.at(0) * kInverseOf3 % 256;
}

// Pictures between two numbers that count modulo 256.
std::uint32_t Steps(std::uint32_t from, std::uint32_t to) {
  return (to - from) % 256;
}

// Pictures may be left out in between when this process is kept from running.
const auto IsOrder = testing::AllOf(testing::Ge(1U), testing::Lt(128U));

// Whether the first row of a decoded picture is that of a painted one. Which one cannot be told for
// sure: from one picture to the next all bytes count up alike.
bool ShowsThePattern(const Bytes& picture, const Size& size) {
  const std::size_t row = std::size_t{2} * static_cast<std::size_t>(size.width);
  for (std::uint32_t number = 0; number < 256; ++number) {
    // A row of YUYV pixels is two rows of the painted bytes.
    const Bytes painted = Painted({size.frame, size.width, 2}, number);
    if (LumaPsnr(std::span(picture).first(row), std::span(painted).first(row)) > 20) {
      return true;
    }
  }
  return false;
}

class Player {
 public:
  explicit Player(const Size& size) : mSize(size) {
    EXPECT_EQ(mDecoder.Init(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_YUYV, size.width, size.height, nullptr), 0);
  }
  Bytes Show(const Bytes& unit) {
    Bytes picture(mSize.Bytes());
    std::uint32_t size = 0;
    EXPECT_EQ(mDecoder.Decode(unit.data(), static_cast<std::uint32_t>(unit.size()), picture.data(), &size), 1);
    EXPECT_EQ(size, picture.size());
    return picture;
  }

 private:
  const Size mSize;
  UVCDecoder mDecoder;
};

TEST(EmulatedCamera, ConfigurationIsRebuiltByteForByte) {
  constexpr std::string_view kHex =
      "0902150102010080FA080B00020E03000109040000000E0100010D240100014D00C0E1E400010109240305010100"
      "03001A2406038CA72912B4479440B0CEDB0738 "
      "6FB93808010201000012240201010200000000000000000300000 0"
      "0B24050201000002000000"
      "09040100000E0200010E24010165008100050200000100"
      "1B240401025955593200001000800000AA00389B711001000000 00"
      "1E240501008002E0010000CA080000CA080060090015160500 0115160500"
      "1E240502000005D0020000CA080000CA080060090015160500 0115160500"
      "09040101010E0200010705810100140109040102010E02000107058101001401"
      "09040103010E0200010705810100140109040104010E02000107058101001401";
  std::string text;
  for (const std::uint8_t byte : [] {
         CameraGuest guest(kCamera);
         guest.Open();
         EXPECT_EQ(guest.Configuration(9).size(), 9U);
         return guest.Configuration();
       }()) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    text += {kDigits[byte >> 4U], kDigits[byte & 15U]};
  }
  std::string expected(kHex);
  std::erase(expected, ' ');
  EXPECT_EQ(text.size(), std::size_t{2} * 277);
  EXPECT_EQ(text, expected);
}

TEST(EmulatedCamera, DeliversEachPictureOfItsSourceWholeAndInOrder) {
  CameraGuest guest(kCamera);
  guest.Open();
  for (const Size& size : kSizes) {  // A second application of another size.
    SCOPED_TRACE(size.height);
    const std::uint32_t frameSize = guest.Negotiate(1, size.frame).dwMaxVideoFrameSize;
    EXPECT_EQ(frameSize, size.Bytes());
    guest.Start();
    std::uint32_t number = 0;
    for (int i = 0; i < 20; ++i) {
      const Bytes picture = guest.Picture();
      ASSERT_EQ(picture.size(), size.Bytes());
      const std::uint32_t former = std::exchange(number, NumberOf(picture));
      EXPECT_TRUE(picture == Painted(size, number)) << "picture " << i;
      if (i > 0) {
        EXPECT_THAT(Steps(former, number), IsOrder);
      }
    }
    guest.Stop();
    for (const TransferReply& reply : guest.Rest()) {
      EXPECT_TRUE(reply.status == kXferTimedOut ? reply.data.empty() : reply.status == 0);
    }
  }
}

TEST(EmulatedCamera, DeliversDecodablePicturesWhenThePolicyComesBeforeTheOpen) {
  CameraGuest guest(kCamera);
  guest.AllowTranscoding();
  guest.Open();
  for (const Size& size : kSizes) {
    SCOPED_TRACE(size.height);
    guest.Negotiate(1, size.frame);
    guest.Start();
    Player player(size);
    for (int i = 0; i < 12; ++i) {
      const Bytes unit = guest.Picture();
      ASSERT_LT(unit.size(), size.Bytes() / 2);
      EXPECT_TRUE(ShowsThePattern(player.Show(unit), size)) << "picture " << i;
    }
    guest.Stop();
    guest.Rest();
  }
}

TEST(EmulatedCamera, PolicyAfterTheOpenWaitsForTheNextOne) {
  CameraGuest guest(kCamera);
  guest.Open();
  guest.AllowTranscoding();
  guest.Negotiate(1, 1);
  guest.Start();
  EXPECT_EQ(guest.Picture(0).size(), kSizes[0].Bytes());
  EXPECT_EQ(guest.Remote().Status(Command::kCloseUsbDev), 0);
  guest.Open();
  guest.Negotiate(1, 1);
  guest.Start();
  EXPECT_LT(guest.Picture(0).size(), kSizes[0].Bytes() / 2);
}

TEST(EmulatedCamera, ReadsOfEveryOtherKindAreAnsweredToo) {
  CameraGuest guest(kCamera);
  guest.Open();
  EXPECT_EQ(guest.Remote().Transfer(Command::kBulkTransfer, 0x81, 8).status, kXferError);
  const std::uint32_t idle = guest.Read();
  EXPECT_EQ(guest.Remote().CancelTransfer(idle), 0);
  EXPECT_EQ(guest.Next().status, kXferCancelled);
  guest.Start();  // Nothing was committed: the backend alone, which delivers nevertheless.
  guest.Stop();
}

TEST(EmulatedCamera, StopsAndEndsAtAnyMoment) {
  for (int i = 0; i < 50; ++i) {
    CameraGuest guest(kCamera);
    if (i % 2 == 0) {
      guest.AllowTranscoding();
    }
    guest.Open();
    guest.Negotiate(1, static_cast<std::uint8_t>(1 + i % 2));
    guest.Start();
    for (int read = 0; read < i % 5; ++read) {
      guest.Read();
    }
    const std::size_t reads = static_cast<std::size_t>(i % 5);
    switch (i % 4) {
      case 0:
        guest.Stop();
        EXPECT_THAT(guest.Rest(), SizeIs(reads));
        break;
      case 1:
        EXPECT_EQ(guest.Remote().Status(Command::kCloseUsbDev), 0);
        EXPECT_THAT(guest.Rest(), SizeIs(reads));
        break;
      case 2:
        guest.Start(2);
        EXPECT_THAT(guest.Rest(), SizeIs(reads));
        break;
      default:
        break;  // Destroyed as it is.
    }
  }
}

// In kilobytes, of this process.
std::size_t ResidentMemory() {
  std::ifstream statm("/proc/self/statm");
  std::size_t total = 0;
  std::size_t resident = 0;
  statm >> total >> resident;
  return resident * 4;
}

TEST(EmulatedCamera, StreamsWithFlatMemoryAndWithoutDrift) {
  CameraGuest guest(kCamera);
  guest.AllowTranscoding();
  guest.Open();
  guest.Negotiate(1, 2);
  guest.Start();
  const auto begin = Clock::now();
  std::size_t warm = 0;
  int pictures = 0;
  for (; Clock::now() < begin + gSoak; ++pictures) {
    ASSERT_FALSE(guest.Picture().empty()) << "timed out behind picture " << pictures;
    if (warm == 0 && Clock::now() > begin + gSoak / 10) {
      warm = ResidentMemory();
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const std::size_t end = ResidentMemory();
  std::printf("%d pictures in %.1f s: %.2f a second; memory %zu KiB, then %zu KiB\n", pictures, seconds,
              pictures / seconds, warm, end);
  if (!kSanitized) {  // A sanitizer keeps what was freed.
    EXPECT_LT(end, warm + 16 * 1024);
  }
  // What waits in the queues when nobody reads any more: a stream that drifts has more and more.
  guest.Stop();
  EXPECT_THAT(guest.Rest(), SizeIs(3));
}

}  // namespace
}  // namespace vel::test

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (argc == 3 && std::string_view(argv[1]) == "--soak") {
    vel::test::gSoak = std::chrono::seconds(std::atoi(argv[2]));
  }
  return RUN_ALL_TESTS();
}
