#include "cmd/stream/GuestCamera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

#include "far/FakeFarEnd.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

// A descriptor of this type and length, with fields at offset 2 and zeros behind them.
Bytes Descriptor(std::uint8_t type, std::uint8_t length, Bytes fields) {
  fields.insert(fields.begin(), {length, type});
  fields.resize(length);
  return fields;
}

Bytes Format(std::uint8_t subtype, std::uint8_t length, std::uint8_t index, std::string_view code,
             std::uint8_t defaultFrame) {
  Bytes bytes = Descriptor(0x24, length, {subtype, index, 1});
  std::copy(code.begin(), code.end(), bytes.begin() + 5);
  bytes[subtype == 6 ? 6 : 22] = defaultFrame;
  return bytes;
}

// `width` x 772 pixels, and the interval at its place.
Bytes Frame(std::uint8_t subtype, std::uint8_t index, std::size_t intervalAt, std::uint8_t length = 30,
            std::uint16_t width = 258) {
  Bytes bytes = Descriptor(
      0x24, length,
      {subtype, index, 0, static_cast<std::uint8_t>(width), static_cast<std::uint8_t>(width >> 8U), 0x04, 0x03});
  for (std::size_t i = 0; i < 4 && intervalAt + i < bytes.size(); ++i) {
    bytes[intervalAt + i] = static_cast<std::uint8_t>(4 - i);
  }
  return bytes;
}

// A record of a serialised configuration, and the length of the extra bytes that follow its parts.
Bytes Record(Bytes fields, std::size_t extra) {
  fields.resize(16);
  fields[12] = static_cast<std::uint8_t>(extra);
  fields[13] = static_cast<std::uint8_t>(extra >> 8U);
  return fields;
}

struct Endpoint {
  std::uint16_t maxPacketSize;
  Bytes companion = {};
  std::uint8_t address = 0x82;
};

Bytes Interface(std::uint8_t subclass, std::uint8_t setting, const Bytes& extra,
                const std::optional<Endpoint>& endpoint = std::nullopt) {
  const auto number = static_cast<std::uint8_t>(subclass - 1);
  Bytes bytes = Record({9, 4, number, setting, endpoint.has_value(), 0x0E, subclass}, extra.size());
  if (endpoint) {
    const auto size = endpoint->maxPacketSize;
    bytes = Join(
        {bytes,
         Record({7, 5, endpoint->address, 5, static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8U), 1},
                endpoint->companion.size()),
         endpoint->companion});
  }
  return Join({bytes, extra});
}

// A camera with this block, whose settings from 1 on have these endpoints, as it is told to the remote side.
Bytes Configuration(const Bytes& block, const std::vector<Endpoint>& endpoints, std::uint16_t bcdUvc = 0x0100) {
  const Bytes control =
      Descriptor(0x24, 13, {1, static_cast<std::uint8_t>(bcdUvc), static_cast<std::uint8_t>(bcdUvc >> 8U)});
  auto number = static_cast<std::uint8_t>(endpoints.size() + 1);
  Bytes bytes = Join({Record({9, 2, 0, 0, 2, 1}, 0),
                      {1, 0, 0, 0},
                      Interface(1, 0, control),
                      {number, 0, 0, 0},
                      Interface(2, 0, block)});
  number = 0;
  for (const Endpoint& endpoint : endpoints) {
    bytes = Join({bytes, Interface(2, ++number, {}, endpoint)});
  }
  return bytes;
}

std::optional<CameraModel> Camera(const Bytes& block, const std::vector<Endpoint>& endpoints = {{192}},
                                  std::uint16_t bcdUvc = 0x0100) {
  return ReadCameraModel(ReadConfigModel(Configuration(block, endpoints, bcdUvc)).value());
}

Bytes Input() {
  return Descriptor(0x24, 14, {1, 2, 0, 0, 0x82});
}

TEST(CameraModelTest, FormatsAndTheirFramesAreFoundByTheirLayouts) {
  const auto camera = Camera(Join({Input(), Format(6, 11, 1, "", 2), Frame(7, 1, 21), Frame(7, 2, 21),
                                   Descriptor(0x24, 10, {3}),  // A still image, which is no frame.
                                   Format(4, 27, 2, "YUY2", 1), Frame(5, 1, 21), Format(4, 27, 3, "NV12", 9),
                                   Frame(5, 1, 21), Format(0x10, 28, 4, "H264", 1), Frame(0x11, 1, 17)}));
  ASSERT_TRUE(camera.has_value());
  EXPECT_EQ(camera->interfaceNumber, 1);
  EXPECT_EQ(camera->endpoint, 0x82);
  constexpr std::uint32_t kInterval = 0x01020304;
  EXPECT_THAT(camera->modes, ElementsAre(FieldsAre(PictureFormat::kMjpeg, 1, 1, false, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kMjpeg, 1, 2, true, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kYuyv, 2, 1, true, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kOther, 3, 1, false, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kH264, 4, 1, true, 258, 772, kInterval)));
}

TEST(CameraModelTest, SettingsCarryWhatTheirEndpointsSayAndControlsGrowWithTheClass) {
  const auto camera = Camera(Input(), {{192}, {0x1400}, {1024, {6, 0x30, 1, 0, 0x00, 0x0C}}, {512, {}, 0x83}});
  EXPECT_THAT(camera->settings, ElementsAre(FieldsAre(1, 192), FieldsAre(2, 3072), FieldsAre(3, 3072)));
  for (const auto& [bcdUvc, length] : {std::pair{0x0100, 26}, {0x0110, 34}, {0x0150, 48}}) {
    EXPECT_EQ(Camera(Input(), {}, static_cast<std::uint16_t>(bcdUvc))->controlLength, length);
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
      // MJPEG in two sizes, YUYV in the second only.
      return Configuration(Join({Input(), Format(6, 11, 1, "", 1), Frame(7, 1, 21, 30, 64), Frame(7, 2, 21, 30, 32),
                                 Format(4, 27, 2, "YUY2", 1), Frame(5, 1, 21, 30, 32)}),
                           {{192}, {1024}, {512}});
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
    return Join({{static_cast<std::uint8_t>(mControl.size()), 0, 0, 0}, in ? mControl : Bytes()});
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
                           Case{true, PictureSize{32, 772}, kYuyv, 1}, Case{false, PictureSize{32, 772}, kMjpeg, 2},
                           Case{true, PictureSize{64, 772}, kMjpeg, 1}}) {
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
