// A UVC camera read through the real libusb, on a mocked kernel.
#include <map>
#include <memory>
#include <utility>

#include <gmock/gmock.h>

#include "io/UsbIoXferInfo.h"
#include "mockdev/MockCamera.h"
#include "policys/UVCDecoder.h"
#include "policys/stream/CameraGuest.h"
#include "support/Scene.h"

namespace vel {
namespace {

using test::CameraGuest;
using testing::Each;
using testing::Ge;
using testing::SizeIs;
using Options = MockCamera::Options;

constexpr std::uint8_t kYuyv = 1;
constexpr std::uint8_t kMjpeg = 2;
constexpr std::uint8_t kLarge = 1;  // 640x480.
constexpr std::uint8_t kSmall = 2;  // 320x240.

const std::vector<Bytes>& Pictures(std::uint8_t format, std::uint8_t frame) {
  static std::map<std::pair<std::uint8_t, std::uint8_t>, std::vector<Bytes>> drawn;
  std::vector<Bytes>& pictures = drawn[{format, frame}];
  if (pictures.empty()) {
    const int width = frame == kLarge ? 640 : 320;
    const int height = width * 3 / 4;
    const test::Scene scene(width, height);
    for (int number = 0; number < 5; ++number) {
      pictures.push_back(scene.Draw(number));
      if (format == kMjpeg) {
        pictures.back() = test::EncodeJpeg(pictures.back(), width, height);
      }
    }
  }
  return pictures;
}

// A guest at a camera that is streaming.
struct Streaming {
  explicit Streaming(const Options& options, std::uint8_t format = kYuyv, std::uint8_t frame = kLarge,
                     bool transcode = false)
      : bulk(options.bulk), camera(std::make_unique<MockCamera>(options)) {
    if (transcode) {
      guest.AllowTranscoding();
    }
    guest.Open();
    Start(format, frame);
  }
  ~Streaming() { EXPECT_EQ(guest.Remote().Status(Command::kCloseUsbDev), 0); }
  Streaming(const Streaming&) = delete;
  Streaming& operator=(const Streaming&) = delete;

  void Start(std::uint8_t format, std::uint8_t frame) {
    camera->Show(pictures = Pictures(format, frame));
    const std::uint32_t size = guest.Negotiate(format, frame).dwMaxVideoFrameSize;
    EXPECT_EQ(size, frame == kLarge ? 614400U : 153600U);
    // A camera that streams over bulk has no such setting, and the stream starts all the same.
    EXPECT_EQ(guest.Remote().SetInterfaceAltSetting(1, 1) == 0, !bulk);
  }
  // Frames one by one, two of them under way, so that none is thinned out however slow this is.
  std::vector<Bytes> Receive(int count) {
    std::vector<Bytes> received;
    camera->Allow(std::min(count, 2));
    for (int i = 0; i < count && !testing::Test::HasFailure(); ++i) {
      received.push_back(guest.Picture());
      camera->Allow(i + 2 < count ? 1 : 0);
    }
    return received;
  }

  const bool bulk;
  std::vector<Bytes> pictures;
  std::unique_ptr<MockCamera> camera;
  CameraGuest guest{{MockCamera::kBus, camera->Address(), MockCamera::kVendor, MockCamera::kProduct, ""}};
};

TEST(RealCamera, PicturesComeOutBitExact) {
  constexpr MockPayloads::Faults kFaults{.lost = 3, .errors = 30, .headersAlone = 200};
  constexpr MockPayloads::Faults kNoLoss{.lost = 0, .errors = 30, .headersAlone = 200};
  const struct {
    const char* name;
    Options options;
    std::uint8_t format;
    bool transcode = false;
  } cases[] = {{"YUYV", {}, kYuyv},
               {"YUYV with faults", {.faults = kNoLoss}, kYuyv},
               {"MJPEG with faults", {.faults = kFaults}, kMjpeg},
               {"MJPEG passes also where transcoding is allowed", {}, kMjpeg, true},
               {"bulk YUYV with faults", {.bulk = true, .faults = kNoLoss}, kYuyv},
               {"bulk MJPEG", {.bulk = true}, kMjpeg}};
  for (const auto& [name, options, format, transcode] : cases) {
    SCOPED_TRACE(name);
    Streaming stream(options, format, kLarge, transcode);
    const std::vector<Bytes> received = stream.Receive(12);
    const std::vector<Bytes> sent = stream.camera->Sent();
    EXPECT_TRUE(received == sent);
    for (std::size_t i = 0; i < sent.size() && options.faults.lost == 0; ++i) {
      EXPECT_TRUE(sent[i] == stream.pictures[i % stream.pictures.size()]) << i;
    }
  }
}

TEST(RealCamera, RawPicturesThatLostPacketsAreNotGivenOut) {
  Streaming stream({.faults = {.lost = 3}});
  stream.camera->Allow(200);
  for (int i = 0; i < 8 && !HasFailure(); ++i) {
    EXPECT_THAT(stream.pictures, testing::Contains(stream.guest.Picture()));
  }
  EXPECT_THAT(stream.camera->Sent(), testing::Contains(SizeIs(testing::Lt(614400U))));
}

TEST(RealCamera, TranscodedPicturesDecode) {
  Streaming stream({}, kYuyv, kLarge, true);
  UVCDecoder decoder;
  ASSERT_EQ(decoder.Init(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_YUYV, 640, 480, nullptr), 0);
  const std::vector<Bytes> units = stream.Receive(12);
  ASSERT_THAT(units, SizeIs(12));
  for (std::size_t i = 0; i < units.size(); ++i) {
    Bytes picture(614400);
    std::uint32_t size = 0;
    ASSERT_EQ(decoder.Decode(units[i].data(), static_cast<std::uint32_t>(units[i].size()), picture.data(), &size), 1);
    EXPECT_GT(test::LumaPsnr(picture, stream.pictures[i % stream.pictures.size()]), 25) << i;
  }
}

// The camera sends by its own clock, and the guest keeps up with it.
TEST(RealCamera, NoFrameIsLostAtThirtyASecond) {
  if (kSanitized) {
    GTEST_SKIP() << "an instrumented build does not keep up with a camera's clock";
  }
  constexpr int kFrames = 60;
  Streaming stream({});
  stream.camera->Allow(kFrames);
  std::vector<Bytes> received;
  for (int i = 0; i < kFrames && !HasFailure(); ++i) {
    received.push_back(stream.guest.Picture());
  }
  EXPECT_TRUE(received == stream.camera->Sent());
}

// Isochronous endpoints do not stall.
TEST(RealCamera, StallIsClearedAndTheStreamGoesOn) {
  Streaming stream({.bulk = true}, kMjpeg);
  const std::vector<Bytes> before = stream.Receive(2);
  EXPECT_TRUE(before == stream.camera->Sent());
  stream.camera->Halt();
  const std::vector<Bytes> after = stream.Receive(3);
  ASSERT_THAT(after, SizeIs(3));
  EXPECT_TRUE(after[2] == stream.pictures[4]);
  EXPECT_THAT(stream.camera->Look().clearedHalts, Ge(1));
}

TEST(RealCamera, StopsStartsAgainAndChangesItsSizeAndFormat) {
  Streaming stream({});
  for (int i = 0; i < 50 && !HasFailure(); ++i) {
    const int frames = i % 3;  // Also without one.
    for (const Bytes& picture : stream.Receive(frames)) {
      EXPECT_TRUE(picture == stream.pictures[0] || picture == stream.pictures[1]);
    }
    for (int read = 0; read < i % 4; ++read) {
      stream.guest.Read();
    }
    stream.camera->Allow(i % 2);  // In the middle of one.
    stream.guest.Stop();
    stream.guest.Rest();
    EXPECT_EQ(stream.camera->Look().pending, 0U);
    stream.Start(i % 5 == 0 ? kMjpeg : kYuyv, i % 2 == 0 ? kSmall : kLarge);
  }
  EXPECT_THAT(stream.Receive(3), SizeIs(3));
}

TEST(RealCamera, UnpluggedInMidStreamLeavesNothing) {
  for (const bool bulk : {false, true}) {
    for (const bool stops : {false, true}) {
      Streaming stream({.bulk = bulk});
      EXPECT_THAT(stream.Receive(1), SizeIs(1));
      stream.camera->Allow(1);
      stream.guest.Read();
      stream.camera->Unplug();
      if (stops) {
        EXPECT_NE(stream.guest.Remote().SetInterfaceAltSetting(1, 0), 0);
      }
      EXPECT_THAT(stream.guest.Rest(),
                  Each(testing::Field(&TransferReply::status, testing::AnyOf(kXferCompleted, kXferTimedOut))));
    }
  }
}

}  // namespace
}  // namespace vel
