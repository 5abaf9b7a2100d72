// The emulated camera with its synthetic source through the module, packets in and replies out.
#include <array>

#include <gmock/gmock.h>

#include "CameraGuest.h"
#include "io/DummyUsbIo/DummyCamera.h"
#include "io/DummyUsbIo/UvcConfigBuilder.h"
#include "io/UsbIoXferInfo.h"

namespace vel::test {
namespace {

using ::testing::SizeIs;

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

TEST(EmulatedCamera, ConfigurationIsRebuiltByteForByte) {
  UvcConfigBuilder builder(false);
  builder.CreateConfigHeader();
  builder.CreateCtrlInterface();
  builder.CreateVsInterface(std::array{_CameraParam{640, 480, 2, 0}, _CameraParam{1280, 720, 2, 0}});
  CameraGuest guest(kCamera);
  guest.Open();
  const Bytes bytes = guest.Remote().ControlTransfer({0x80, 6, 0x0200, 0, 4096}).data;
  EXPECT_THAT(bytes, SizeIs(277));
  EXPECT_EQ(bytes, builder.Take());
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
        // Some may be left out when this process is kept from running.
        EXPECT_THAT((number - former) % 256, testing::AllOf(testing::Ge(1U), testing::Lt(128U)));
      }
    }
    guest.Stop();
    for (const TransferReply& reply : guest.Rest()) {
      EXPECT_TRUE(reply.status == kXferTimedOut ? reply.data.empty() : reply.status == 0);
    }
  }
}

TEST(EmulatedCamera, StreamsOnWhateverElseIsAskedOfIt) {
  CameraGuest guest(kCamera);
  guest.Open();
  guest.Negotiate(1, 1);
  guest.Start();
  ASSERT_FALSE(guest.Picture().empty());
  guest.Remote().SubmitIsoTransfer(0x82, std::array{1U}, {}, [](const TransferReply&) {});
  guest.Remote().CancelTransfer(0xFFFFFF00);
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(guest.Picture().empty());
  }
}

}  // namespace
}  // namespace vel::test
