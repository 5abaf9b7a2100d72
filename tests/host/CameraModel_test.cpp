#include "remote/CameraModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace vel {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

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

// 258 x 772 pixels, and the interval at its place.
Bytes Frame(std::uint8_t subtype, std::uint8_t index, std::size_t intervalAt, std::uint8_t length = 30) {
  Bytes bytes = Descriptor(0x24, length, {subtype, index, 0, 0x02, 0x01, 0x04, 0x03});
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

TEST(CameraModelTest, SettingsCarryWhatTheirEndpointsSay) {
  ConfigModel config = Camera(kInput);
  config.interfaces[1].push_back(Setting(3, 1024, {6, 0x30, 1, 0, 0x00, 0x0C}));
  config.interfaces[1].push_back(Setting(4, 512));
  config.interfaces[1].back().endpoints[0].bEndpointAddress = 0x83;
  EXPECT_THAT(ReadCameraModel(config)->settings,
              ElementsAre(FieldsAre(1, 192), FieldsAre(2, 3072), FieldsAre(3, 3072)));
  config.interfaces[1] = {Setting(0, 512)};  // Bulk.
  config.interfaces[1][0].extra = kInput;
  EXPECT_THAT(ReadCameraModel(config)->settings, IsEmpty());
}

TEST(CameraModelTest, ControlsGrowWithTheClass) {
  EXPECT_EQ(ReadCameraModel(Camera(kInput, 0x0100))->controlLength, 26);
  EXPECT_EQ(ReadCameraModel(Camera(kInput, 0x0110))->controlLength, 34);
  EXPECT_EQ(ReadCameraModel(Camera(kInput, 0x0150))->controlLength, 48);
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

}  // namespace
}  // namespace vel
