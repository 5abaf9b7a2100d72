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

#include "protocol/Commands.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::ThrowsMessage;

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

AltSettingModel Setting(std::uint8_t number, std::uint16_t maxPacketSize, Bytes companion = {}) {
  AltSettingModel setting;
  setting.bInterfaceNumber = 3;
  setting.bAlternateSetting = number;
  setting.bInterfaceClass = 0x0E;
  setting.bInterfaceSubClass = 2;
  if (maxPacketSize > 0) {
    EndpointModel endpoint;
    endpoint.bEndpointAddress = 0x82;
    endpoint.wMaxPacketSize = maxPacketSize;
    endpoint.extra = std::move(companion);
    setting.endpoints = {endpoint};
  }
  return setting;
}

ConfigModel Camera(Bytes block, std::uint16_t bcdUvc = 0x0100) {
  AltSettingModel control = Setting(0, 0);
  control.bInterfaceSubClass = 1;
  control.extra = Descriptor(0x24, 13, {1, static_cast<std::uint8_t>(bcdUvc), static_cast<std::uint8_t>(bcdUvc >> 8U)});
  ConfigModel config;
  config.interfaces = {{control}, {Setting(0, 0), Setting(1, 192), Setting(2, 0x1400)}};
  config.interfaces[1][0].extra = std::move(block);
  return config;
}

const Bytes kInput = Descriptor(0x24, 14, {1, 2, 0, 0, 0x82});

TEST(CameraModelTest, FormatsAndTheirFramesAreFoundByTheirLayouts) {
  const auto camera =
      ReadCameraModel(Camera(Join({kInput, Format(6, 11, 1, "", 2), Frame(7, 1, 21), Frame(7, 2, 21),
                                   Descriptor(0x24, 10, {3}),  // A still image, which is no frame.
                                   Format(4, 27, 2, "YUY2", 1), Frame(5, 1, 21), Format(4, 27, 3, "NV12", 9),
                                   Frame(5, 1, 21), Format(0x10, 28, 4, "H264", 1), Frame(0x11, 1, 17)})));
  ASSERT_TRUE(camera.has_value());
  EXPECT_EQ(camera->interfaceNumber, 3);
  EXPECT_EQ(camera->endpoint, 0x82);
  constexpr std::uint32_t kInterval = 0x01020304;
  EXPECT_THAT(camera->modes, ElementsAre(FieldsAre(PictureFormat::kMjpeg, 1, 1, false, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kMjpeg, 1, 2, true, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kYuyv, 2, 1, true, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kOther, 3, 1, false, 258, 772, kInterval),
                                         FieldsAre(PictureFormat::kH264, 4, 1, true, 258, 772, kInterval)));
}

TEST(CameraModelTest, SettingsCarryWhatTheirEndpointsSayAndControlsGrowWithTheClass) {
  ConfigModel config = Camera(kInput);
  config.interfaces[1].push_back(Setting(3, 1024, {6, 0x30, 1, 0, 0x00, 0x0C}));
  config.interfaces[1].push_back(Setting(4, 512));
  config.interfaces[1].back().endpoints[0].bEndpointAddress = 0x83;
  EXPECT_THAT(ReadCameraModel(config)->settings,
              ElementsAre(FieldsAre(1, 192), FieldsAre(2, 3072), FieldsAre(3, 3072)));
  for (const auto& [bcdUvc, length] : {std::pair{0x0100, 26}, {0x0110, 34}, {0x0150, 48}}) {
    EXPECT_EQ(ReadCameraModel(Camera(kInput, static_cast<std::uint16_t>(bcdUvc)))->controlLength, length);
  }
  config.interfaces[1] = {Setting(0, 512)};  // Bulk.
  config.interfaces[1][0].extra = kInput;
  EXPECT_THAT(ReadCameraModel(config)->settings, IsEmpty());
}

TEST(CameraModelTest, WhatIsCutIsLeftOut) {
  const Bytes format = Format(4, 27, 1, "YUY2", 1);
  for (const Bytes& block : {Join({kInput, Frame(5, 1, 21)}),              // Of no format.
                             Join({kInput, format, Frame(5, 1, 21, 25)}),  // Too short for its interval.
                             Join({kInput, Format(4, 26, 1, "YUY2", 1), Frame(5, 1, 21)}),
                             Join({kInput, format, Bytes{30, 0x24, 5, 1}})}) {  // Ends in the middle.
    const auto camera = ReadCameraModel(Camera(block));
    ASSERT_TRUE(camera.has_value());
    EXPECT_THAT(camera->modes, IsEmpty());
  }
  EXPECT_FALSE(ReadCameraModel(Camera({})).has_value());
  EXPECT_FALSE(ReadCameraModel(Camera(Descriptor(0x24, 12, {1, 2, 0, 0, 0x82}))).has_value());
  EXPECT_FALSE(ReadCameraModel(ConfigModel{}).has_value());
}

// A record of a serialised configuration, and the extra bytes of its interface.
Bytes Record(Bytes fields, std::size_t extra) {
  fields.resize(16);
  fields[12] = static_cast<std::uint8_t>(extra);
  return fields;
}

Bytes Interface(std::uint8_t subclass, std::uint8_t setting, const Bytes& extra, std::uint16_t maxPacketSize = 0) {
  const auto number = static_cast<std::uint8_t>(subclass - 1);
  const auto endpoints = static_cast<std::uint8_t>(maxPacketSize > 0 ? 1 : 0);
  const Bytes endpoint = Record(
      {7, 5, 0x82, 5, static_cast<std::uint8_t>(maxPacketSize), static_cast<std::uint8_t>(maxPacketSize >> 8U), 1}, 0);
  return Join({Record({9, 4, number, setting, endpoints, 0x0E, subclass}, extra.size()),
               endpoints == 1 ? endpoint : Bytes(), extra});
}

// MJPEG in two sizes, YUYV in the second only; settings 1 to 3 carry 192, 1024 and 512 bytes.
Bytes Configuration() {
  const Bytes block = Join({kInput, Format(6, 11, 1, "", 1), Frame(7, 1, 21, 30, 64), Frame(7, 2, 21, 30, 32),
                            Format(4, 27, 2, "YUY2", 1), Frame(5, 1, 21, 30, 32)});
  return Join({Record({9, 2, 0, 0, 2, 1}, 0),
               {1, 0, 0, 0},
               Interface(1, 0, {}),
               {4, 0, 0, 0},
               Interface(2, 0, block),
               Interface(2, 1, {}, 192),
               Interface(2, 2, {}, 1024),
               Interface(2, 3, {}, 512)});
}

// A camera that agrees to everything, unless told to change what it agreed to.
class FakeCamera final : public PacketChannel {
 public:
  void Start(Receiver receiver) override { mReceiver = std::move(receiver); }
  void Close() override {}

  bool Send(std::unique_ptr<VelPacket> packet) override {
    const auto command = static_cast<Command>(packet->GetCommand());
    const Bytes payload(packet->PayloadBytes().begin(), packet->PayloadBytes().end());
    mSent[command] = payload;
    Bytes reply(4);  // Status 0.
    if (command == Command::kGetDeviceDesc) {
      reply = Bytes(18, 1);
    } else if (command == Command::kGetDeviceConfig) {
      reply = Configuration();
    } else if (command == Command::kControlTransfer) {
      constexpr std::size_t kSetup = 12;
      const bool in = payload[0] == 0xA1;
      mControl = in ? mControl : Bytes(payload.begin() + kSetup, payload.end());
      reply[0] = static_cast<std::uint8_t>(mControl.size());
      if (in) {
        change(mControl);
        reply.insert(reply.end(), mControl.begin(), mControl.end());
      }
    }
    auto answer = std::make_unique<VelPacket>(16384);
    answer->InitHeader(packet->GetReqId(), ReplyCode(command), packet->GetDevId());
    answer->Append(reply.data(), static_cast<std::uint32_t>(reply.size()));
    mReceiver.onPacket(std::move(answer));
    return true;
  }

  // The latest of its kind; empty when none was sent.
  const Bytes& Sent(Command command) { return mSent[command]; }

  void Forget() { mSent.clear(); }

  std::function<void(Bytes&)> change = [](Bytes&) {};

 private:
  Receiver mReceiver;
  Bytes mControl;
  std::map<Command, Bytes> mSent;
};

class GuestCameraTest : public testing::Test {
 protected:
  std::unique_ptr<FakeCamera> mMade = std::make_unique<FakeCamera>();
  FakeCamera& mCamera = *mMade;
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
    mCamera.Forget();
    GuestCamera camera(mRemote, test.transcode);
    camera.Negotiate(test.size);
    const Bytes& commit = mCamera.Sent(Command::kControlTransfer);
    EXPECT_EQ(commit[3], 2) << "the last control is the commit";
    EXPECT_EQ(commit[14], test.formatIndex);
    EXPECT_EQ(commit[15], test.frameIndex);
    EXPECT_EQ(mCamera.Sent(Command::kSetRedirPolicy).empty(), !test.transcode);
  }
}

TEST_F(GuestCameraTest, SettingIsTheSmallestThatCarriesThePayloads) {
  const std::pair<std::uint32_t, std::uint8_t> tests[] = {{100, 1}, {192, 1}, {193, 3}, {513, 2}, {3000, 2}};
  GuestCamera camera(mRemote, false);
  for (const auto& [payloadBytes, setting] : tests) {
    mCamera.change = [bytes = payloadBytes](Bytes& control) {
      control[22] = static_cast<std::uint8_t>(bytes);
      control[23] = static_cast<std::uint8_t>(bytes >> 8U);
    };
    camera.Start(camera.Negotiate(std::nullopt));
    EXPECT_EQ(mCamera.Sent(Command::kSetInterfaceAltSetting), (Bytes{1, 0, 0, 0, setting, 0, 0, 0})) << payloadBytes;
  }
}

TEST_F(GuestCameraTest, WhatCannotBeAgreedOnIsSaid) {
  GuestCamera camera(mRemote, true);
  EXPECT_THAT(
      [&] {
        camera.Negotiate(PictureSize{48, 772});
      },
      ThrowsMessage<std::runtime_error>(HasSubstr("give one of 64x772, 32x772")));
  for (const std::size_t what : {2U, 3U, 4U}) {
    mCamera.change = [what](Bytes& control) { what == 4 ? control.resize(25) : void(control[what] ^= 3U); };
    EXPECT_THAT([&] { camera.Negotiate(std::nullopt); },
                ThrowsMessage<RemoteError>(HasSubstr("does not agree to 32x772")));
  }
}

}  // namespace
}  // namespace vel
