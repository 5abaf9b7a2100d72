#include "cmd/stream/GuestCamera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "protocol/Commands.h"

namespace vel {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

// A record of a serialised configuration, and the extra bytes of its interface.
Bytes Record(Bytes fields, std::size_t extra) {
  fields.resize(16);
  fields[12] = static_cast<std::uint8_t>(extra);
  return fields;
}

Bytes Interface(std::uint8_t subclass, std::uint8_t setting, const Bytes& extra, std::uint16_t maxPacketSize = 0) {
  const auto number = static_cast<std::uint8_t>(subclass - 1);
  const auto endpoints = static_cast<std::uint8_t>(maxPacketSize > 0 ? 1 : 0);
  Bytes bytes = Record({9, 4, number, setting, endpoints, 0x0E, subclass}, extra.size());
  if (maxPacketSize > 0) {
    const Bytes endpoint = Record(
        {7, 5, 0x81, 5, static_cast<std::uint8_t>(maxPacketSize), static_cast<std::uint8_t>(maxPacketSize >> 8U), 1},
        0);
    bytes.insert(bytes.end(), endpoint.begin(), endpoint.end());
  }
  bytes.insert(bytes.end(), extra.begin(), extra.end());
  return bytes;
}

Bytes Frame(std::uint8_t subtype, std::uint8_t index, std::uint8_t width) {
  Bytes bytes = {26, 0x24, subtype, index, 0, width, 0, 48, 0};
  bytes.resize(26);
  return bytes;
}

// MJPEG in 64 and 32 pixels, YUYV in 32 only; settings 1 to 3 carry 192, 1024 and 512 bytes.
Bytes Configuration() {
  Bytes block = {13, 0x24, 1, 2, 0, 0, 0x81, 0, 0, 0, 0, 0, 1, 11, 0x24, 6, 1, 2, 0, 1, 0, 0, 0, 0};
  Bytes format = {27, 0x24, 4, 2, 1, 'Y', 'U', 'Y', '2'};
  format.resize(27);
  format[22] = 1;
  for (const Bytes& part : {Frame(7, 1, 64), Frame(7, 2, 32), format, Frame(5, 1, 32)}) {
    block.insert(block.end(), part.begin(), part.end());
  }
  Bytes all;
  for (const Bytes& part :
       {Record({9, 2, 0, 0, 2, 1}, 0), Bytes{1, 0, 0, 0}, Interface(1, 0, {}), Bytes{4, 0, 0, 0},
        Interface(2, 0, block), Interface(2, 1, {}, 192), Interface(2, 2, {}, 1024), Interface(2, 3, {}, 512)}) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
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
  const struct {
    bool transcode;
    std::optional<PictureSize> size;
    std::uint8_t formatIndex;
    std::uint8_t frameIndex;
  } tests[] = {{true, std::nullopt, kYuyv, 1},
               {false, std::nullopt, kMjpeg, 1},
               {true, PictureSize{32, 48}, kYuyv, 1},
               {false, PictureSize{32, 48}, kMjpeg, 2},
               {true, PictureSize{64, 48}, kMjpeg, 1}};
  for (const auto& test : tests) {
    mCamera.Forget();
    GuestCamera camera(mRemote, test.transcode);
    const CameraMode mode = camera.Negotiate(test.size).mode;
    EXPECT_EQ(mode.formatIndex, test.formatIndex);
    EXPECT_EQ(mode.frameIndex, test.frameIndex);
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
        camera.Negotiate(PictureSize{48, 48});
      },
      ThrowsMessage<std::runtime_error>(HasSubstr("give one of 64x48, 32x48")));
  for (const std::function<void(Bytes&)>& change : std::initializer_list<std::function<void(Bytes&)>>{
           [](Bytes& control) { control[2] ^= 3U; }, [](Bytes& control) { control[3] = 9; },
           [](Bytes& control) { control.resize(25); }}) {
    mCamera.change = change;
    EXPECT_THAT([&] { camera.Negotiate(std::nullopt); },
                ThrowsMessage<RemoteError>(HasSubstr("does not agree to 32x48")));
  }
}

}  // namespace
}  // namespace vel
