// What the camera says it is, and what it answers on its control endpoint.
#include <gmock/gmock.h>

#include <array>
#include <string_view>
#include <tuple>

#include "FakeCapture.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/DummyUsbIo/UvcConfigBuilder.h"

namespace vel {
namespace {

using ::testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;
using Sizes = std::vector<_CameraParam>;

// Bytes in hexadecimal; "??" is a byte from `values`, in turn.
void Append(Bytes& bytes, std::string_view hex, std::initializer_list<std::size_t> values = {}) {
  const auto* value = values.begin();
  for (std::size_t i = 0; i + 1 < hex.size(); ++i) {
    if (hex[i] != ' ') {
      const std::string digits(hex.substr(i++, 2));
      bytes.push_back(static_cast<std::uint8_t>(digits == "??" ? *value++ : std::stoul(digits, nullptr, 16)));
    }
  }
}

void AppendFrames(Bytes& bytes, std::string_view hex, const Sizes& sizes) {
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    Append(bytes, hex,
           {i + 1, sizes[i].width & 0xFFU, sizes[i].width >> 8U, sizes[i].height & 0xFFU, sizes[i].height >> 8U});
  }
}

Bytes Configuration(const Sizes& sizes, bool mjpeg) {
  const std::size_t count = sizes.size();
  const std::size_t block = mjpeg ? 69 + 60 * count : 41 + 30 * count;
  const std::size_t total = 176 + block;
  Bytes bytes;
  Append(bytes,
         "09 02 ?? ?? 02 01 00 80 FA  08 0B 00 02 0E 03 00 01"
         "09 04 00 00 00 0E 01 00 01  0D 24 01 00 01 4D 00 C0 E1 E4 00 01 01"
         "09 24 03 05 01 01 00 03 00"
         "1A 24 06 03 8C A7 29 12 B4 47 94 40 B0 CE DB 07 38 6F B9 38 08 01 02 01 00 00"
         "12 24 02 01 01 02 00 00 00 00 00 00 00 00 03 00 00 00"
         "0B 24 05 02 01 00 00 02 00 00 00  09 04 01 00 00 0E 02 00 01",
         {total & 0xFFU, total >> 8U});
  if (mjpeg) {
    Append(bytes, "0F 24 01 02 ?? ?? 81 00 05 02 00 00 01 00 00  0B 24 06 01 ?? 00 01 00 00 00 00",
           {block & 0xFFU, block >> 8U, count});
    AppendFrames(bytes, "1E 24 07 ?? 00 ?? ?? ?? ?? 30 28 CC 08 30 28 CC 08 4D 62 09 00 15 16 05 00 01 15 16 05 00",
                 sizes);
    Append(bytes, "0A 24 03 00 01 80 02 E0 01 00  06 24 0D 01 01 04");
  } else {
    Append(bytes, "0E 24 01 01 ?? ?? 81 00 05 02 00 00 01 00", {block & 0xFFU, block >> 8U});
  }
  Append(bytes, "1B 24 04 ?? ?? 59 55 59 32 00 00 10 00 80 00 00 AA 00 38 9B 71 10 01 00 00 00 00",
         {mjpeg ? 2U : 1U, count});
  AppendFrames(bytes, "1E 24 05 ?? 00 ?? ?? ?? ?? 00 00 CA 08 00 00 CA 08 00 60 09 00 15 16 05 00 01 15 16 05 00",
               sizes);
  for (std::size_t alt = 1; alt <= 4; ++alt) {
    Append(bytes, "09 04 01 ?? 01 0E 02 00 01  07 05 81 01 00 14 01", {alt});
  }
  return bytes;
}

Sizes Many(std::uint32_t count, std::uint32_t pixelFormat) {
  Sizes sizes;
  for (std::uint32_t i = 0; i < count; ++i) {
    sizes.push_back({640 - 8 * (i % 7), 0x1E0 + i, pixelFormat, 7});
  }
  return sizes;
}

TEST(CameraDescriptors, AreBuiltToTheByte) {
  for (const bool mjpeg : {false, true}) {
    for (const std::uint32_t count : {1U, 2U, 40U}) {
      const Sizes sizes = Many(count, 2);
      UvcConfigBuilder builder(mjpeg);
      builder.CreateConfigHeader();
      builder.CreateCtrlInterface();
      builder.CreateVsInterface(sizes);
      const Bytes built = builder.Take();
      EXPECT_EQ(built, Configuration(sizes, mjpeg));
      EXPECT_EQ(built.size(), 217 + 30 * count + (mjpeg ? 28 + 30 * count : 0));
    }
  }
}

// The streaming interface's bytes.
Bytes Offered(const libusb_config_descriptor& config) {
  const libusb_interface_descriptor& streaming = config.interface[1].altsetting[0];
  return {streaming.extra, streaming.extra + streaming.extra_length};
}

// Those of a camera with these sizes.
Bytes Block(const Sizes& sizes, bool mjpeg) {
  const Bytes all = Configuration(sizes, mjpeg);
  return {all.begin() + 112, all.end() - 64};  // Without what is before it, and the alternate settings.
}

TEST(CameraDescriptors, OfferWhatTheSourceListsAsYuy2) {
  const Sizes mjpeg = {{1920, 1080, 3, 0}, {640, 480, 3, 0}};
  struct Source {
    const char* what;
    Sizes listed, offered;
    std::uint32_t capability;
  };
  for (const Source& source :
       {Source{"more than a format counts", Many(300, 2), Many(255, 2), 0},
        Source{"MJPEG among others", {{800, 600, 2, 0}, mjpeg[0], {9, 9, 4, 0}, mjpeg[1]}, mjpeg, 1}}) {
    SCOPED_TRACE(source.what);
    FakeCapture capture;
    capture.params = source.listed;
    DummyUvcIo io(0x23, 0x81, 0x1234, 0xABCD, "cam");
    ASSERT_EQ(io.OpenUsbDev(), 0);
    const libusb_config_descriptor* config = io.GetConfigDesc();
    EXPECT_EQ(Offered(*config), Block(source.offered, false));
    EXPECT_EQ(io.GetIoCapability(), source.capability);
    EXPECT_EQ(io.OpenUsbDev(), 0);
    EXPECT_EQ(io.GetConfigDesc(), config) << "what was handed out stays";
    EXPECT_EQ(io.CloseUsbDev(), 0);
    EXPECT_EQ(Offered(*config), Block(source.offered, false)) << "also for a late reader";
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
