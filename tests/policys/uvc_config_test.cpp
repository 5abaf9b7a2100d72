// The video-streaming interface in libusb's configuration, and the small tools of UVCUtil.
#include <cstdio>
#include <deque>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

#include "VsBlock.h"
#include "policys/UVCUtil.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using Bytes = VsBlock::Bytes;

constexpr std::uint32_t kNone = 0xFFFFFFFF;

// A configuration from a text, a word for each interface:
//   audio, control     others, with a block that nothing may find
//   vs2                streaming with 2 alternate settings; vs2=81 with a block that names endpoint 0x81
//   +ep21              and the word before has an endpoint with 21 bytes that name endpoint 0x83
struct Config {
  explicit Config(const std::string& text) {
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      AddWord(word);
    }
    config.bNumInterfaces = static_cast<std::uint8_t>(interfaces.size());
    config.interface = interfaces.data();
  }
  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;

  std::deque<Bytes> extras;
  std::deque<libusb_endpoint_descriptor> endpoints;
  std::deque<std::vector<libusb_interface_descriptor>> settings;
  std::vector<libusb_interface> interfaces;
  libusb_config_descriptor config{};

 private:
  void AddWord(const std::string& word) {
    if (word.starts_with("+ep")) {
      libusb_endpoint_descriptor& endpoint = endpoints.emplace_back();
      endpoint.bEndpointAddress = 0x85;
      Bytes bytes = VsBlock("", 0x83).bytes;
      bytes.resize(std::stoul(word.substr(3)));
      SetExtra(endpoint, bytes);
      settings.back()[0].bNumEndpoints = 1;
      settings.back()[0].endpoint = &endpoint;
      return;
    }
    const bool streaming = word.starts_with("vs");
    libusb_interface_descriptor& first = settings.emplace_back(4).front();
    first.bInterfaceClass = word == "audio" ? 1 : 14;
    first.bInterfaceSubClass = word == "control" ? 1 : 2;
    interfaces.push_back({settings.back().data(), streaming ? word[2] - '0' : 2});
    if (!streaming || word.size() > 3) {
      const auto address = streaming ? std::stoul(word.substr(4), nullptr, 16) : 0x99;
      SetExtra(first, VsBlock("yuyv 480 still color", static_cast<std::uint8_t>(address)).bytes);
    }
  }
  template <class Desc>
  void SetExtra(Desc& desc, const Bytes& extra) {
    desc.extra = extras.emplace_back(extra).data();
    desc.extra_length = static_cast<int>(extra.size());
  }
};

int TreeEndpoint(const libusb_config_descriptor* config) {
  const auto header = UVCUtil::ParseUVCInputHeader(config);
  return header == nullptr ? -1 : header->bEndpointAddress;
}

TEST(UVCConfig, IsSearchedForItsStreamingInterface) {
  struct Case {
    std::string config;
    std::uint8_t interface;
    std::uint32_t endpoint;
    bool bulk;
    int tree;  // The endpoint in its header; -1: there is none.
    std::vector<std::string> errors;
  };
  const std::string inEndpoint = "Error:Get InputHeader fail in ep[0x85] extra data";
  for (const Case& test : {Case{"", 255, kNone, true, -1, {}},
                           {"audio control", 255, kNone, true, -1, {}},
                           {"control vs2=81", 1, 0x81, false, 0x81, {}},
                           {"control vs1=82 audio", 1, 0x82, true, 0x82, {}},
                           {"vs1=81 control vs2=82", 0, 0x82, false, 0x81, {}},
                           {"vs1=81 vs1", 0, 0x81, true, 0x81, {}},
                           {"vs1 +ep21", 0, 0x83, true, 0x83, {}},
                           {"vs1 +ep20", 0, 0x83, true, -1, {inEndpoint}},
                           {"vs1 +ep20 vs1=84", 0, 0x84, true, 0x84, {inEndpoint}},
                           {"vs1=81 +ep21", 0, 0x81, true, 0x81, {}},
                           {"audio vs3", 1, kNone, false, -1, {"Error:Get InputHeader fail in if[1] extra data"}},
                           {"vs0=81", 255, kNone, true, -1, {}}}) {
    SCOPED_TRACE(test.config);
    const Config config(test.config);
    EXPECT_EQ(UVCUtil::GetVSInterfaceFromConfig(&config.config), test.interface);
    EXPECT_EQ(UVCUtil::GetVSEndpointFromConfig(&config.config), test.endpoint);
    EXPECT_EQ(UVCUtil::IsStreamOverBulk(&config.config), test.bulk);
    const CapturingLog log;
    EXPECT_EQ(TreeEndpoint(&config.config), test.tree);
    EXPECT_EQ(log.Messages(), test.errors);
  }
}

TEST(UVCConfig, ThatContradictsItselfHasNoHeader) {
  const auto spoilt = [](auto spoil) {
    Config config("vs2=81");
    spoil(config, config.settings[0][0]);
    return std::pair(UVCUtil::GetVSEndpointFromConfig(&config.config), TreeEndpoint(&config.config));
  };
  const std::pair none(kNone, -1);
  EXPECT_EQ(spoilt([](Config&, auto& setting) { setting.extra = nullptr; }), none);
  EXPECT_EQ(spoilt([](Config&, auto& setting) { setting.extra_length = -1; }), none);
  EXPECT_EQ(spoilt([](Config&, auto& setting) { setting.extra_length = 6; }), none);
  EXPECT_EQ(spoilt([](Config&, auto& setting) { setting.extra_length = 0, setting.bNumEndpoints = 3; }), none);
  EXPECT_EQ(spoilt([](Config& config, auto&) { config.interfaces[0].altsetting = nullptr; }), none);
  EXPECT_EQ(spoilt([](Config& config, auto&) { config.interfaces[0].num_altsetting = -1; }), none);
  EXPECT_EQ(spoilt([](Config& config, auto&) { config.config.interface = nullptr; }), none);
}

TEST(UVCLog, StreamControlsAndRequestsByName) {
  UVCStreamCtrl ctrl{};
  // Byte i of the block is i + 1, up to the interface number.
  for (std::size_t i = 0; i < sizeof ctrl; ++i) {
    reinterpret_cast<unsigned char*>(&ctrl)[i] = static_cast<unsigned char>(i + 1);
  }
  const CapturingLog log;
  UVCUtil::PrintStreamCtrl(ctrl);
  for (const int request : {0x00, 0x01, 0x81, 0x87, 0x88}) {
    UVCUtil::DumpRequest(static_cast<std::uint8_t>(request));
  }
  for (const int wValue : {0x0000, 0x14FF, 0x1500}) {
    UVCUtil::DumpCtrlSelector(static_cast<std::uint16_t>(wValue));
  }
  EXPECT_THAT(
      log.Messages(),
      ElementsAre("Debug:[UVC CTRL] ", "Debug:[UVC CTRL] bmHint: 0201", "Debug:[UVC CTRL] bFormatIndex: 3",
                  "Debug:[UVC CTRL] bFrameIndex: 4", "Debug:[UVC CTRL] dwFrameInterval: 134678021",
                  "Debug:[UVC CTRL] wKeyFrameRate: 2569", "Debug:[UVC CTRL] wPFrameRate: 3083",
                  "Debug:[UVC CTRL] wCompQuality: 3597", "Debug:[UVC CTRL] wCompWindowSize: 4111",
                  "Debug:[UVC CTRL] wDelay: 4625", "Debug:[UVC CTRL] dwMaxVideoFrameSize: 370480147",
                  "Debug:[UVC CTRL] dwMaxPayloadTransferSize: 437852183", "Debug:[UVC CTRL] bInterfaceNumber: 35",
                  "Error:[UVC_RC_UNDEFINED]", "Error:[UVC_SET_CUR]", "Error:[UVC_GET_CUR]", "Error:[UVC_GET_DEF]",
                  "Error:[Invalid reqeust]", "Error:[Invalid reqeust]"));
}

TEST(UVCTools, PictureReplacesTheOneBefore) {
  const std::string path = testing::TempDir() + "uvc_picture." + std::to_string(getpid());
  const std::string text("a\0\r\nb", 5);
  const Bytes bytes(text.begin(), text.end());
  for (const std::uint32_t size : {5U, 1U}) {
    UVCUtil::SavePicture(bytes.data(), size, path.c_str());
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), text.substr(0, size));
  }
  UVCUtil::SavePicture(bytes.data(), 1, testing::TempDir().c_str());  // Cannot be written: a line, no more.
  std::remove(path.c_str());
}

}  // namespace
}  // namespace vel
