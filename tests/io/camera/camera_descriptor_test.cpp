// What the camera says it is, and what it answers on its control endpoint.
#include <gmock/gmock.h>

#include <array>
#include <span>
#include <string_view>
#include <tuple>
#include <utility>

#include "FakeCapture.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/DummyUsbIo/UvcConfigBuilder.h"

namespace vel {
namespace {

using ::testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;
using Sizes = std::vector<_CameraParam>;

// 640x480 and 1280x720, without MJPEG.
constexpr std::string_view kYuyvAlone =
    "09 02 15 01 02 01 00 80 FA  08 0B 00 02 0E 03 00 01"
    "09 04 00 00 00 0E 01 00 01  0D 24 01 00 01 4D 00 C0 E1 E4 00 01 01"
    "09 24 03 05 01 01 00 03 00"
    "1A 24 06 03 8C A7 29 12 B4 47 94 40 B0 CE DB 07 38 6F B9 38 08 01 02 01 00 00"
    "12 24 02 01 01 02 00 00 00 00 00 00 00 00 03 00 00 00"
    "0B 24 05 02 01 00 00 02 00 00 00  09 04 01 00 00 0E 02 00 01"
    "0E 24 01 01 65 00 81 00 05 02 00 00 01 00"
    "1B 24 04 01 02 59 55 59 32 00 00 10 00 80 00 00 AA 00 38 9B 71 10 01 00 00 00 00"
    "1E 24 05 01 00 80 02 E0 01 00 00 CA 08 00 00 CA 08 00 60 09 00 15 16 05 00 01 15 16 05 00"
    "1E 24 05 02 00 00 05 D0 02 00 00 CA 08 00 00 CA 08 00 60 09 00 15 16 05 00 01 15 16 05 00"
    "09 04 01 01 01 0E 02 00 01  07 05 81 01 00 14 01  09 04 01 02 01 0E 02 00 01  07 05 81 01 00 14 01"
    "09 04 01 03 01 0E 02 00 01  07 05 81 01 00 14 01  09 04 01 04 01 0E 02 00 01  07 05 81 01 00 14 01";
// What else there is with MJPEG, in front of the uncompressed format.
constexpr std::string_view kMjpeg =
    "0F 24 01 02 BD 00 81 00 05 02 00 00 01 00 00  0B 24 06 01 02 00 01 00 00 00 00"
    "1E 24 07 01 00 80 02 E0 01 30 28 CC 08 30 28 CC 08 4D 62 09 00 15 16 05 00 01 15 16 05 00"
    "1E 24 07 02 00 00 05 D0 02 30 28 CC 08 30 28 CC 08 4D 62 09 00 15 16 05 00 01 15 16 05 00"
    "0A 24 03 00 01 80 02 E0 01 00  06 24 0D 01 01 04";

Bytes FromHex(std::string_view hex) {
  Bytes bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); ++i) {
    if (hex[i] != ' ') {
      bytes.push_back(static_cast<std::uint8_t>(std::stoul(std::string(hex.substr(i++, 2)), nullptr, 16)));
    }
  }
  return bytes;
}

TEST(CameraDescriptors, AreBuiltToTheByte) {
  constexpr std::size_t kBlock = 112;  // Where the streaming interface's bytes begin.
  constexpr std::size_t kHeader = 14;
  for (const bool mjpeg : {false, true}) {
    UvcConfigBuilder builder(mjpeg);
    builder.CreateConfigHeader();
    builder.CreateCtrlInterface();
    builder.CreateVsInterface(Sizes{{640, 480, 2, 7}, {1280, 720, 2, 7}});
    Bytes expected = FromHex(kYuyvAlone);
    if (mjpeg) {
      const Bytes more = FromHex(kMjpeg);
      expected[2] = 0x6D;                  // The total length.
      expected[kBlock + kHeader + 3] = 2;  // The format's index.
      expected.erase(expected.begin() + kBlock, expected.begin() + kBlock + kHeader);
      expected.insert(expected.begin() + kBlock, more.begin(), more.end());
    }
    EXPECT_EQ(builder.Take(), expected);
  }
}

// The sizes of its frames.
std::vector<std::pair<int, int>> Offered(const libusb_config_descriptor& config) {
  const libusb_interface_descriptor& streaming = config.interface[1].altsetting[0];
  const std::span bytes(streaming.extra, static_cast<std::size_t>(streaming.extra_length));
  EXPECT_EQ(bytes[4] | bytes[5] << 8, streaming.extra_length);
  std::vector<std::pair<int, int>> sizes;
  for (std::size_t at = 0; at < bytes.size(); at += bytes[at]) {
    if (bytes[at + 2] == 5) {
      sizes.emplace_back(bytes[at + 5] | bytes[at + 6] << 8, bytes[at + 7] | bytes[at + 8] << 8);
    }
  }
  return sizes;
}

TEST(CameraDescriptors, OfferWhatTheSourceListsAsYuy2) {
  Sizes many;
  std::vector<std::pair<int, int>> first255;
  for (std::uint32_t i = 0; i < 300; ++i) {
    many.push_back({640 - 8 * (i % 7), 0x1E0 + i, 2, 7});
    first255.emplace_back(640 - 8 * (i % 7), 0x1E0 + i);
  }
  first255.resize(255);  // A format counts no more.
  const Sizes mixed = {{800, 600, 2, 0}, {1920, 1080, 3, 0}, {9, 9, 4, 0}, {640, 480, 3, 0}};
  const std::vector<std::pair<int, int>> mjpegAlone = {{1920, 1080}, {640, 480}};
  for (const auto& [listed, offered, capability] : {std::tuple(many, first255, 0U), {mixed, mjpegAlone, 1U}}) {
    FakeCapture capture;
    capture.params = listed;
    DummyUvcIo io(0x23, 0x81, 0x1234, 0xABCD, "cam");
    ASSERT_EQ(io.OpenUsbDev(), 0);
    const libusb_config_descriptor* config = io.GetConfigDesc();
    EXPECT_EQ(Offered(*config), offered);
    EXPECT_EQ(io.GetIoCapability(), capability);
    EXPECT_EQ(io.OpenUsbDev(), 0);
    EXPECT_EQ(io.GetConfigDesc(), config) << "what was handed out stays";
    EXPECT_EQ(io.CloseUsbDev(), 0);
    EXPECT_EQ(Offered(*config), offered) << "also for a late reader";
    EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen cam", "CamClose cam"));
  }
}

TEST(CameraDescriptors, AreNotThereWithoutAUsableSource) {
  for (const auto& [open, list, format] : {std::tuple{-3, 0, 2U}, {0, -4, 2U}, {0, 0, 4U}}) {
    FakeCapture capture;
    capture.openResult = open;
    capture.listResult = list;
    capture.params = {{640, 480, format, 0}};
    DummyUvcIo io(1, 0x80, 1, 1, "cam");
    EXPECT_EQ(io.OpenUsbDev(), -1);
    EXPECT_EQ(io.GetConfigDesc(), nullptr);
    EXPECT_EQ(capture.Calls().back(), open < 0 ? "CamOpen cam" : "CamClose cam");
    capture.openResult = capture.listResult = 0;
    capture.params = {{640, 480, 2, 0}};
    EXPECT_EQ(io.OpenUsbDev(), 0) << "a source that is there later is taken";
  }
}

constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;

class CameraControl : public ::testing::Test {
 protected:
  // The answer within a block of `size` bytes of 0xEE.
  Bytes Get(std::uint8_t request, std::uint16_t value, std::uint16_t size) {
    Bytes data(size, 0xEE);
    EXPECT_EQ(io.ControlTransfer(0xA1, request, value, 1, data.data(), size, 100), std::min<int>(size, 35));
    return data;
  }
  Bytes Probe() { return Get(kGetCur, 0x0100, 35); }
  void Set(std::uint16_t value, Bytes data) {
    const auto size = static_cast<std::uint16_t>(data.size());
    EXPECT_EQ(io.ControlTransfer(0x21, kSetCur, value, 1, data.data(), size, 100), size);
  }

  FakeCapture capture;
  DummyUvcIo io{1, 0x80, 1, 1, "cam"};
  const int opened = io.OpenUsbDev();
  const Bytes initial = {0, 0,    1, 1, 0x40, 0x42, 0x0F, 0, 0, 0, 0, 0, 0, 0, 0x1E, 0, 0, 0,
                         0, 0x60, 9, 0, 0xF4, 0x0B, 0,    0, 0, 0, 0, 0, 0, 0, 0,    0, 0};
};

TEST_F(CameraControl, AnswersEveryGetAlikeCutToItsLengthAndTakesSetsOfAnyLength) {
  for (std::uint8_t request = kGetCur; request <= 0x87; ++request) {
    EXPECT_EQ(Get(request, 0x0100, 35), initial);
    EXPECT_EQ(Get(request, 0x02FF, 35), initial);
  }
  EXPECT_EQ(Get(kGetCur, 0x0100, 26), Bytes(initial.begin(), initial.begin() + 26));
  Bytes longer = initial;
  longer.resize(64, 0xEE);
  EXPECT_EQ(Get(kGetCur, 0x0100, 64), longer);
  Set(0x0100, {9, 9, 1, 2});
  Bytes expected = initial;
  std::ranges::copy(Bytes{9, 9, 1, 2}, expected.begin());
  std::ranges::copy(Bytes{0x00, 0x20, 0x1C, 0x00}, expected.begin() + 18);
  EXPECT_EQ(Probe(), expected);
  Set(0x0200, longer);
  EXPECT_EQ(io.ControlTransfer(0x21, kSetCur, 0x0100, 1, nullptr, 0, 0), 0);
  EXPECT_EQ(Probe(), initial);
}

TEST_F(CameraControl, LeavesTheDataOfOtherRequestsAsItIs) {
  for (const auto& [type, request, value, index] :
       std::initializer_list<std::array<std::uint16_t, 4>>{{0xA1, kGetCur, 0x0100, 0x0100},
                                                           {0xA1, kGetCur, 0x0300, 1},
                                                           {0xC0, 1, 0x0100, 1},
                                                           {0x21, kSetCur, 0x0100, 0x0101}}) {
    Bytes data(40, 0xEE);
    EXPECT_EQ(io.ControlTransfer(static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(request), value, index,
                                 data.data(), 40, 0),
              40);
    EXPECT_EQ(data, Bytes(40, 0xEE));
    EXPECT_EQ(Probe(), initial);
  }
}

TEST_F(CameraControl, NegotiatesTheSizeOfTheFrameThatIsNamed) {
  constexpr std::uint32_t kSmall = 640 * 480 * 2;
  constexpr std::uint32_t kLarge = 1280 * 720 * 2;
  struct Row {
    std::uint8_t format, frame;
    std::uint32_t size;  // Of a frame that is not there: as it was.
  };
  for (const std::uint16_t selector : {std::uint16_t{0x0100}, std::uint16_t{0x0200}}) {
    for (const Row& row : {Row{1, 2, kLarge}, Row{1, 255, kLarge}, Row{1, 1, kSmall}, Row{2, 2, kSmall}}) {
      SCOPED_TRACE(::testing::Message() << +row.format << "/" << +row.frame);
      Bytes wanted(35, 0xFF);
      wanted[2] = row.format;
      wanted[3] = row.frame;
      Set(selector, wanted);
      for (std::size_t i = 0; i < 4; ++i) {
        wanted[18 + i] = static_cast<std::uint8_t>(row.size >> (8 * i));
      }
      std::ranges::copy(Bytes{0xF4, 0x0B, 0, 0}, wanted.begin() + 22);  // The payload's size, which stays.
      EXPECT_EQ(Probe(), wanted);
    }
  }
}

TEST_F(CameraControl, AnswersStrings) {
  const std::string_view product(
      "\x22\3O\0s\0k\0e\0l\0o\0 \0C\0a\0m\0e\0r\0a\0 \0#\0"
      "0\0",
      34);
  const std::string_view languages("\4\3\11\4", 4);
  for (const std::uint8_t index : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{7}}) {
    for (const std::uint16_t length : {std::uint16_t{0}, std::uint16_t{3}, std::uint16_t{255}}) {
      const std::string_view answer = (index == 0 ? languages : product).substr(0, length);
      std::string data(255, '\xEE');
      auto* bytes = reinterpret_cast<std::uint8_t*>(data.data());
      EXPECT_EQ(io.GetStringDescriptor(index, 0x0409, bytes, length), answer.size());
      EXPECT_EQ(io.ControlTransfer(0x80, 6, 0x0300 | index, 0, bytes, length, 0), answer.size());
      EXPECT_EQ(data, std::string(answer) + std::string(255 - answer.size(), '\xEE'));
    }
  }
}

}  // namespace
}  // namespace vel
