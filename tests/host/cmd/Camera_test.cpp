#include "cmd/stream/GuestCamera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/far/FakeFarEnd.h"
#include "support/VsBlock.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;

// At endpoint 0x82, to be changed.
struct Block : VsBlock {
  explicit Block(const std::string& text) : VsBlock(text, 0x82) {}
  std::uint8_t& At(std::size_t descriptor, std::size_t offset) { return bytes[starts.at(descriptor) + offset]; }
  void SetInterval(std::size_t frame, std::size_t offset) { std::ranges::copy(Bytes{4, 3, 2, 1}, &At(frame, offset)); }
  void SetCode(std::size_t format, std::string_view code) { std::ranges::copy(code, &At(format, 5)); }
};

struct Endpoint {
  std::uint16_t maxPacketSize;
  Bytes companion = {};
  std::uint8_t address = 0x82;
};

// A camera with this block, whose settings from 1 on have these endpoints, as it is told to the remote side.
Bytes Configuration(const Bytes& block, const std::vector<Endpoint>& endpoints, std::uint16_t bcdUvc = 0x0100) {
  Bytes control = {13, 0x24, 1, static_cast<std::uint8_t>(bcdUvc), static_cast<std::uint8_t>(bcdUvc >> 8U)};
  control.resize(13);
  Bytes bytes;
  FakeFarEnd::PutRecord(bytes, {9, 2, 0, 0, 2, 1});
  FakeFarEnd::Put(bytes, 1);
  FakeFarEnd::PutRecord(bytes, {9, 4, 0, 0, 0, 0x0E, 1}, control);
  FakeFarEnd::Put(bytes, static_cast<std::uint32_t>(endpoints.size() + 1));
  FakeFarEnd::PutRecord(bytes, {9, 4, 1, 0, 0, 0x0E, 2}, block);
  std::uint8_t number = 0;
  for (const auto& [size, companion, address] : endpoints) {
    FakeFarEnd::PutRecord(bytes, {9, 4, 1, ++number, 1, 0x0E, 2});
    const auto high = static_cast<std::uint8_t>(size >> 8U);
    FakeFarEnd::PutRecord(bytes, {7, 5, address, 5, static_cast<std::uint8_t>(size), high, 1}, companion);
  }
  return bytes;
}

std::optional<CameraModel> Camera(const Bytes& block, const std::vector<Endpoint>& endpoints = {{192}},
                                  std::uint16_t bcdUvc = 0x0100) {
  return ReadCameraModel(ReadConfigModel(Configuration(block, endpoints, bcdUvc)).value());
}

TEST(CameraModelTest, FormatsAndTheirFramesAreFoundByTheirLayouts) {
  Block block("mjpeg 480 720 still yuyv 480 yuyv 480 based 480");  // A still image is no frame.
  block.At(1, 6) = 2;                                              // Default frames.
  block.At(5, 22) = block.At(9, 22) = 1;
  block.At(7, 22) = 9;
  block.SetCode(7, "NV12");
  block.SetCode(9, "H264");
  block.At(10, 2) = 0x11;
  for (const std::size_t frame : {2U, 3U, 6U, 8U}) {
    block.SetInterval(frame, 21);
  }
  block.SetInterval(10, 17);
  const auto camera = Camera(block.bytes);
  ASSERT_TRUE(camera.has_value());
  EXPECT_EQ(camera->interfaceNumber, 1);
  EXPECT_EQ(camera->endpoint, 0x82);
  constexpr std::uint32_t kInterval = 0x01020304;
  EXPECT_THAT(camera->modes, ElementsAre(FieldsAre(PictureFormat::kMjpeg, 1, 1, false, 1480, 480, kInterval),
                                         FieldsAre(PictureFormat::kMjpeg, 1, 2, true, 1720, 720, kInterval),
                                         FieldsAre(PictureFormat::kYuyv, 2, 1, true, 1480, 480, kInterval),
                                         FieldsAre(PictureFormat::kOther, 3, 1, false, 1480, 480, kInterval),
                                         FieldsAre(PictureFormat::kH264, 4, 1, true, 1480, 480, kInterval)));
}

TEST(CameraModelTest, SettingsCarryWhatTheirEndpointsSayAndControlsGrowWithTheClass) {
  const auto camera = Camera(Block("").bytes, {{192}, {0x1400}, {1024, {6, 0x30, 1, 0, 0x00, 0x0C}}, {512, {}, 0x83}});
  EXPECT_THAT(camera->settings, ElementsAre(FieldsAre(1, 192), FieldsAre(2, 3072), FieldsAre(3, 3072)));
  for (const auto& [bcdUvc, length] : {std::pair{0x0100, 26}, {0x0110, 34}, {0x0150, 48}}) {
    EXPECT_EQ(Camera(Block("").bytes, {}, static_cast<std::uint16_t>(bcdUvc))->controlLength, length);
  }
}

// Over a camera that agrees to everything, unless told to change what it agreed to.
class GuestCameraTest : public testing::Test {
 protected:
  GuestCameraTest() {
    mCamera.answer = [this](Command command, std::span<const std::uint8_t> payload) {
      mSent[command] = {payload.begin(), payload.end()};
      return Answer(command, payload);
    };
  }
  std::optional<Bytes> Answer(Command command, std::span<const std::uint8_t> payload) {
    if (command == Command::kGetDeviceConfig) {
      Block block("mjpeg 480 720 yuyv 720");
      block.At(1, 6) = block.At(4, 22) = 1;  // Default frames.
      return Configuration(block.bytes, {{192}, {1024}, {512}});
    }
    if (command != Command::kControlTransfer) {
      return std::nullopt;
    }
    constexpr std::size_t kSetup = 12;
    const bool in = payload[0] == 0xA1;
    mControl = in ? mControl : Bytes(payload.begin() + kSetup, payload.end());
    if (in) {
      mChange(mControl);
    }
    Bytes reply = {static_cast<std::uint8_t>(mControl.size()), 0, 0, 0};
    reply.insert(reply.end(), mControl.begin(), in ? mControl.end() : mControl.begin());
    return reply;
  }

  std::map<Command, Bytes> mSent;  // The latest payload of each kind.
  std::function<void(Bytes&)> mChange = [](Bytes&) {};
  Bytes mControl;
  std::unique_ptr<FakeFarEnd> mMade = std::make_unique<FakeFarEnd>();
  FakeFarEnd& mCamera = *mMade;
  RemoteDevice mRemote{std::move(mMade)};
};

TEST_F(GuestCameraTest, FormatIsTheOneThatCanBeTranscodedOrTheFirst) {
  constexpr std::uint8_t kMjpeg = 1;
  constexpr std::uint8_t kYuyv = 2;
  struct Case {
    bool transcode;
    std::optional<PictureSize> size;
    std::uint8_t formatIndex, frameIndex;
  };
  for (const Case& test : {Case{true, std::nullopt, kYuyv, 1}, Case{false, std::nullopt, kMjpeg, 1},
                           Case{true, PictureSize{1720, 720}, kYuyv, 1}, Case{false, PictureSize{1720, 720}, kMjpeg, 2},
                           Case{true, PictureSize{1480, 480}, kMjpeg, 1}}) {
    mSent.clear();
    GuestCamera camera(mRemote, test.transcode);
    camera.Negotiate(test.size);
    const Bytes& commit = mSent[Command::kControlTransfer];
    EXPECT_EQ(commit[3], 2) << "the last control is the commit";
    EXPECT_EQ(commit[14], test.formatIndex);
    EXPECT_EQ(commit[15], test.frameIndex);
    EXPECT_EQ(mSent[Command::kSetRedirPolicy].empty(), !test.transcode);
  }
}

TEST_F(GuestCameraTest, SettingIsTheSmallestThatCarriesThePayloads) {
  const std::pair<std::uint32_t, std::uint8_t> tests[] = {{100, 1}, {192, 1}, {193, 3}, {513, 2}, {3000, 2}};
  GuestCamera camera(mRemote, false);
  for (const auto& [payloadBytes, setting] : tests) {
    mChange = [bytes = payloadBytes](Bytes& control) {
      control[22] = static_cast<std::uint8_t>(bytes);
      control[23] = static_cast<std::uint8_t>(bytes >> 8U);
    };
    camera.Start(camera.Negotiate(std::nullopt));
    EXPECT_EQ(mSent[Command::kSetInterfaceAltSetting], (Bytes{1, 0, 0, 0, setting, 0, 0, 0})) << payloadBytes;
  }
}

}  // namespace
}  // namespace vel
