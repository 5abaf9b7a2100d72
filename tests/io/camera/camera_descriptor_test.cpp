// What the camera says it is.
#include <gmock/gmock.h>

#include <memory>
#include <string_view>

#include "Completions.h"
#include "FakeCapture.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/DummyUsbIo/UvcConfigBuilder.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

using Sizes = std::vector<_CameraParam>;

void AppendHex(Bytes& bytes, std::string_view hex) {
  for (std::size_t i = 0; i + 1 < hex.size(); ++i) {
    if (hex[i] != ' ') {
      bytes.push_back(static_cast<std::uint8_t>(std::stoul(std::string(hex.substr(i++, 2)), nullptr, 16)));
    }
  }
}

void AppendFrames(Bytes& bytes, std::string_view head, std::string_view tail, const Sizes& sizes) {
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    AppendHex(bytes, head);
    for (const std::size_t byte :
         {i + 1, std::size_t{0}, std::size_t{sizes[i].width} & 0xFF, std::size_t{sizes[i].width} >> 8,
          std::size_t{sizes[i].height}, std::size_t{sizes[i].height} >> 8}) {
      bytes.push_back(static_cast<std::uint8_t>(byte));
    }
    AppendHex(bytes, tail);
  }
}

// The streaming block, as it is documented.
Bytes StreamingBlock(const Sizes& sizes, bool mjpeg) {
  Bytes block;
  const auto count = static_cast<std::uint8_t>(sizes.size());
  AppendHex(block,
            mjpeg ? "0F 24 01 02 00 00 81 00 05 02 00 00 01 00 00" : "0E 24 01 01 00 00 81 00 05 02 00 00 01 00");
  if (mjpeg) {
    AppendHex(block, "0B 24 06 01");
    block.push_back(count);
    AppendHex(block, "00 01 00 00 00 00");
    AppendFrames(block, "1E 24 07", "30 28 CC 08 30 28 CC 08 4D 62 09 00 15 16 05 00 01 15 16 05 00", sizes);
    AppendHex(block, "0A 24 03 00 01 80 02 E0 01 00 06 24 0D 01 01 04");
  }
  AppendHex(block, mjpeg ? "1B 24 04 02" : "1B 24 04 01");
  block.push_back(count);
  AppendHex(block, "59 55 59 32 00 00 10 00 80 00 00 AA 00 38 9B 71 10 01 00 00 00 00");
  AppendFrames(block, "1E 24 05", "00 00 CA 08 00 00 CA 08 00 60 09 00 15 16 05 00 01 15 16 05 00", sizes);
  block[4] = static_cast<std::uint8_t>(block.size());
  block[5] = static_cast<std::uint8_t>(block.size() >> 8U);
  return block;
}

Bytes Configuration(const Sizes& sizes, bool mjpeg) {
  Bytes bytes;
  AppendHex(bytes,
            "09 02 00 00 02 01 00 80 FA  08 0B 00 02 0E 03 00 01"
            "09 04 00 00 00 0E 01 00 01  0D 24 01 00 01 4D 00 C0 E1 E4 00 01 01"
            "09 24 03 05 01 01 00 03 00"
            "1A 24 06 03 8C A7 29 12 B4 47 94 40 B0 CE DB 07 38 6F B9 38 08 01 02 01 00 00"
            "12 24 02 01 01 02 00 00 00 00 00 00 00 00 03 00 00 00"
            "0B 24 05 02 01 00 00 02 00 00 00  09 04 01 00 00 0E 02 00 01");
  const Bytes block = StreamingBlock(sizes, mjpeg);
  bytes.insert(bytes.end(), block.begin(), block.end());
  for (std::uint8_t alt = 1; alt <= 4; ++alt) {
    AppendHex(bytes, "09 04 01");
    bytes.push_back(alt);
    AppendHex(bytes, "01 0E 02 00 01  07 05 81 01 00 14 01");
  }
  bytes[2] = static_cast<std::uint8_t>(bytes.size());
  bytes[3] = static_cast<std::uint8_t>(bytes.size() >> 8U);
  return bytes;
}

// The bytes that a tree in libusb's layout stands for.
Bytes Flatten(const libusb_config_descriptor& config) {
  Bytes bytes;
  const auto append = [&bytes](const unsigned char* data, int length) {
    bytes.insert(bytes.end(), data, data + length);
  };
  const auto low = [](std::uint16_t value) { return static_cast<std::uint8_t>(value); };
  const auto high = [](std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8U); };
  bytes = {config.bLength,        config.bDescriptorType,     low(config.wTotalLength), high(config.wTotalLength),
           config.bNumInterfaces, config.bConfigurationValue, config.iConfiguration,    config.bmAttributes,
           config.MaxPower};
  append(config.extra, config.extra_length);
  for (int i = 0; i < config.bNumInterfaces; ++i) {
    for (int a = 0; a < config.interface[i].num_altsetting; ++a) {
      const libusb_interface_descriptor& alt = config.interface[i].altsetting[a];
      const Bytes head = {alt.bLength,       alt.bDescriptorType, alt.bInterfaceNumber,   alt.bAlternateSetting,
                          alt.bNumEndpoints, alt.bInterfaceClass, alt.bInterfaceSubClass, alt.bInterfaceProtocol,
                          alt.iInterface};
      append(head.data(), 9);
      append(alt.extra, alt.extra_length);
      for (int e = 0; e < alt.bNumEndpoints; ++e) {
        const libusb_endpoint_descriptor& ep = alt.endpoint[e];
        const Bytes tail = {ep.bLength,      ep.bDescriptorType,     ep.bEndpointAddress,
                            ep.bmAttributes, low(ep.wMaxPacketSize), high(ep.wMaxPacketSize),
                            ep.bInterval};
        append(tail.data(), 7);
      }
    }
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

struct Source {
  const char* what;
  Sizes listed;
  Sizes offered;
  std::uint32_t capability;
};

TEST(CameraDescriptors, OfferWhatTheSourceListsAsYuy2) {
  const Sizes mjpeg = {{1920, 1080, 3, 0}, {640, 480, 3, 0}};
  for (const Source& source :
       {Source{"one", {{640, 480, 2, 0}}, {{640, 480, 2, 0}}, 0},
        Source{"two in their order", {{1280, 720, 2, 0}, {640, 480, 2, 0}}, {{1280, 720, 2, 0}, {640, 480, 2, 0}}, 0},
        Source{"both raw formats, twice the same",
               {{320, 240, 1, 0}, {320, 240, 2, 0}},
               {{320, 240, 1, 0}, {320, 240, 2, 0}},
               0},
        Source{"40 sizes", Many(40, 2), Many(40, 2), 0},
        Source{"more than a format counts", Many(300, 2), Many(255, 2), 0}, Source{"MJPEG", mjpeg, mjpeg, 1},
        Source{"MJPEG among others", {{800, 600, 2, 0}, mjpeg[0], {9, 9, 4, 0}, mjpeg[1]}, mjpeg, 1}}) {
    SCOPED_TRACE(source.what);
    FakeCapture capture;
    capture.params = source.listed;
    DummyUvcIo io(0x23, 0x81, 0x1234, 0xABCD, "cam");
    EXPECT_EQ(io.GetDeviceDesc(), nullptr);
    EXPECT_EQ(io.GetConfigDesc(), nullptr);
    ASSERT_EQ(io.OpenUsbDev(), 0);
    const libusb_config_descriptor* config = io.GetConfigDesc();
    EXPECT_EQ(Flatten(*config), Configuration(source.offered, false));
    EXPECT_EQ(config->wTotalLength, 217 + 30 * source.offered.size());
    EXPECT_EQ(io.GetIoCapability(), source.capability);
    EXPECT_EQ(io.OpenUsbDev(), 0);
    EXPECT_EQ(io.GetConfigDesc(), config) << "what was handed out stays";
    EXPECT_EQ(io.CloseUsbDev(), 0);
    EXPECT_EQ(io.GetDeviceDesc(), nullptr);
    EXPECT_EQ(Flatten(*config), Configuration(source.offered, false)) << "also for a late reader";
    EXPECT_EQ(io.CloseUsbDev(), 0);
    EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen cam", "CamClose cam"));
  }
}

TEST(CameraDescriptors, WithMjpegComeInTwoFormats) {
  for (const std::uint32_t count : {1U, 2U, 40U}) {
    const Sizes sizes = Many(count, 3);
    UvcConfigBuilder builder(true);
    builder.CreateConfigHeader();
    builder.CreateCtrlInterface();
    builder.CreateVsInterface(sizes);
    EXPECT_EQ(StreamingBlock(sizes, true).size(), 69 + 60 * count);
    EXPECT_EQ(builder.Take(), Configuration(sizes, true));
  }
}

TEST(CameraDescriptors, OfTheDeviceCarryItsIds) {
  FakeCapture capture;
  DummyUvcIo io(0x23, 0x80, 0x1234, 0xABCD, "");
  io.Init();
  ASSERT_EQ(io.OpenUsbDev(), 0);
  const libusb_device_descriptor& desc = *io.GetDeviceDesc();
  EXPECT_EQ(desc.idVendor, 0x1234);
  EXPECT_EQ(desc.idProduct, 0xABCD);
  EXPECT_EQ(desc.bcdUSB, 0x0200);
  EXPECT_EQ(desc.bcdDevice, 0x2702);
  EXPECT_THAT((Bytes{desc.bDeviceClass, desc.bDeviceSubClass, desc.bDeviceProtocol, desc.bMaxPacketSize0,
                     desc.iManufacturer, desc.iProduct, desc.iSerialNumber, desc.bNumConfigurations}),
              ElementsAre(0xEF, 2, 1, 0x40, 1, 1, 0, 1));
  EXPECT_EQ(io.GetBusNumber(), 0x23);
  EXPECT_EQ(io.GetDeviceAddress(), 0x80);
  EXPECT_EQ(io.GetDevicePortNumber(), 0xFF);
  EXPECT_EQ(io.GetDeviceSpeed(), LIBUSB_SPEED_HIGH);
  EXPECT_EQ(io.GetIoType(), 1);
}

TEST(CameraDescriptors, AreNotThereWithoutAUsableSource) {
  struct Row {
    int open;
    int list;
    Sizes sizes;
    std::vector<const char*> errors;
  };
  for (const Row& row :
       {Row{-3, 0, {}, {"Error:open camera failed, ret[-1]"}},
        Row{0, -4, {{640, 480, 2, 0}}, {"Error:get param list failed, ret[-4], size[1]"}},
        Row{0,
            0,
            {{640, 480, 4, 0}, {640, 480, 0, 0}},
            {"Error:Can not find any supported formats", "Error:Can not find any supported formats, ret[-1], size[2]"}},
        Row{0, 0, {}, {"Error:Can not find any supported formats, ret[-1], size[0]"}}}) {
    FakeCapture capture;
    capture.openResult = row.open;
    capture.listResult = row.list;
    capture.params = row.sizes;
    const CapturingLog log;
    DummyUvcIo io(1, 0x80, 1, 1, "cam");
    EXPECT_EQ(io.OpenUsbDev(), -1);
    for (const char* error : row.errors) {
      EXPECT_THAT(log.Messages(), Contains(error));
    }
    EXPECT_EQ(io.GetDeviceDesc(), nullptr);
    EXPECT_EQ(io.GetConfigDesc(), nullptr);
    capture.openResult = 0;
    capture.listResult = 0;
    capture.params = {{640, 480, 2, 0}};
    EXPECT_EQ(io.OpenUsbDev(), 0) << "a source that is there later is taken";
  }
}

TEST(CameraDescriptors, AreAnnouncedInTheLog) {
  FakeCapture capture;
  const CapturingLog log;
  DummyUvcIo io(0xA5, 0x80, 1, 1, "cam");
  ASSERT_EQ(io.OpenUsbDev(), 0);
  EXPECT_THAT(log.Messages("DummyUvcIo"), ElementsAre("Debug:Dummy UVC use real video data, sourc cameraID[2]"));
  EXPECT_THAT(log.Messages("ParseCamParamList"),
              ElementsAre("Debug:size[1]", "Debug:Camera source param[0]: width[640], height[480], pixelFormat[2]"));
  EXPECT_THAT(
      log.Messages("CreateUvcDevice"),
      ElementsAre("Debug:config total length[17]", "Debug:config total length[103]", "Debug:config total length[247]"));
}

}  // namespace
}  // namespace vel
