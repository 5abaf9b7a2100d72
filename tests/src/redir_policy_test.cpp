// Control requests that the policy claims, and the configuration descriptor that it rebuilds.
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "DescriptorTree.h"
#include "policys/RedirPolicy.h"
#include "support/CapturingLog.h"
#include "support/RecordingDeviceBase.h"
#include "support/ScriptedUsbIo.h"
#include "virt_udevice.h"

namespace vel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

using Bytes = std::vector<std::uint8_t>;

struct Policed {
  explicit Policed(std::uint8_t address) : remote({.address = address}), device(&remote, &ScriptedUsbIo::Create) {
    device.Init();
    io.Describe(&deviceDesc, &tree.config);
  }

  int Control(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, Bytes& data) {
    return device.ControlTransfer(bmRequestType, bRequest, wValue, 0x81, data.data(),
                                  static_cast<std::uint16_t>(data.size()), 9);
  }

  libusb_device_descriptor deviceDesc{};
  DescriptorTree tree;
  RecordingDeviceBase remote;
  ScriptedUsbIo io{remote};
  VirtUDevice device;
};

// The configuration descriptor that an emulated device answers after an open.
Bytes Rebuilt(const DescriptorTree& tree) {
  RecordingDeviceBase remote;
  ScriptedUsbIo io(remote);
  const std::unique_ptr<IUsbIo> backend(ScriptedUsbIo::Create(kIoTypeEmulated, &remote));
  libusb_config_descriptor config = tree.config;
  io.Describe(nullptr, &config);
  RedirPolicy policy(backend.get());
  EXPECT_EQ(policy.ProbePolicy(nullptr, nullptr), 0);
  Bytes data(0xFFFF, 0xEE);
  const int size = policy.GetVirtControlData(0x80, 6, 0x0200, 0, data.data(), 0xFFFF);
  data.resize(static_cast<std::size_t>(size));
  return data;
}

TEST(Policy, ClaimsDescriptorRequestsOfEmulatedDevicesOnly) {
  struct Row {
    const char* what;
    std::uint8_t address;
    std::uint8_t bmRequestType;
    std::uint8_t bRequest;
    std::uint16_t wValue;
    bool claimed;
  };
  for (const Row& row :
       {Row{"device", 0x80, 0x80, 6, 0x0100, true}, Row{"configuration", 0x80, 0x80, 6, 0x0200, true},
        Row{"any index", 0x80, 0x80, 6, 0x02FF, true},
        Row{"other recipient is claimed and gets nothing", 0x80, 0x82, 6, 0x0100, true},
        Row{"string", 0x80, 0x80, 6, 0x0300, false}, Row{"other request", 0x80, 0x80, 8, 0x0100, false},
        Row{"class", 0x80, 0xA0, 6, 0x0100, false}, Row{"vendor", 0x80, 0xC0, 6, 0x0100, false},
        Row{"real device", 0x7F, 0x80, 6, 0x0100, false}, Row{"real configuration", 0x7F, 0x80, 6, 0x0200, false}}) {
    SCOPED_TRACE(row.what);
    Policed policed(row.address);
    policed.io.Answer("ControlTransfer", 3);
    policed.device.OpenUsbDev();
    Bytes data(64, 0xEE);
    const int ret = policed.Control(row.bmRequestType, row.bRequest, row.wValue, data);
    if (row.claimed) {
      EXPECT_THAT(policed.io.Calls(), Not(Contains(StartsWith("ControlTransfer"))));
      EXPECT_EQ(ret, (row.bmRequestType & 6) != 0 ? 0 : row.wValue == 0x0100 ? 18 : 34);
    } else {
      EXPECT_THAT(policed.io.Calls(), Contains(StartsWith("ControlTransfer")));
      EXPECT_EQ(ret, 3);
      EXPECT_EQ(data, Bytes(64, 0xEE));
    }
  }
}

TEST(Policy, DeviceWithoutDescriptorsGetsAnEmptyAnswer) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  Policed policed(0x80);
  policed.io.Describe(nullptr, nullptr);
  policed.device.OpenUsbDev();
  Bytes data(18);
  EXPECT_EQ(policed.Control(0x80, 6, 0x0100, data), 0);
  EXPECT_EQ(policed.Control(0x80, 6, 0x0200, data), 0);
  EXPECT_THAT(log.Messages("ProbePolicy"), ElementsAre("Error:GetDeviceconfig: error"));
}

TEST(Policy, ClearFeatureOfAnEndpointClearsTheHaltAndReachesTheDevice) {
  for (const std::uint8_t address : {std::uint8_t{0x7F}, std::uint8_t{0x80}}) {
    Policed policed(address);
    policed.io.Answer("ClearHalt", LIBUSB_ERROR_PIPE);
    const CapturingLog log(OSKELO_LOG_ERROR);
    Bytes none;
    EXPECT_EQ(policed.Control(2, 1, 0, none), 0);
    EXPECT_THAT(policed.io.Calls(), ElementsAre("Init", "ClearHalt 129", "ControlTransfer 2 1 0 129 0 9"));
    EXPECT_THAT(log.Messages(), ElementsAre("Error:Clear feature status[-9], rt[0x2], r[0x1], v[0x0], i[0x81]"));
    for (const std::uint8_t other : Bytes{0x00, 0x01, 0x82, 0x22, 0x42}) {
      policed.Control(other, 1, 0, none);
    }
    policed.Control(2, 3, 0, none);
    EXPECT_EQ(log.Lines().size(), 1U) << "another request cleared a halt";
  }
}

TEST(Policy, DeviceWithoutVideoStreamingHasNoPolicyInterface) {
  RecordingDeviceBase remote;
  const ScriptedUsbIo io(remote);
  const std::unique_ptr<IUsbIo> backend(ScriptedUsbIo::Create(kIoTypeEmulated, &remote));
  RedirPolicy policy(backend.get());
  EXPECT_EQ(policy.SetPolicy("x"), 0);
  EXPECT_EQ(policy.SetPolicy(nullptr), 0);
  EXPECT_EQ(policy.SetInterface(0, 1), -1);
  EXPECT_EQ(policy.SetInterfacePost(0, 1), -1);
  EXPECT_TRUE(policy.IsPolicyInterface(0xFF));
  EXPECT_FALSE(policy.IsPolicyInterface(0x1FF));
  EXPECT_FALSE(policy.IsPolicyEndpoint(0x81));
}

TEST(RebuiltConfiguration, IsTheTreeInWireOrder) {
  DescriptorTree tree;
  const Bytes configExtra = {3, 0x41, 1};
  const Bytes settingExtra = {2, 0x42};
  const Bytes endpointExtra = {4, 0x43, 1, 2};
  DescriptorTree::SetExtra(tree.config, configExtra);
  DescriptorTree::SetExtra(tree.settings[0], settingExtra);
  DescriptorTree::SetExtra(tree.endpoint, endpointExtra);
  tree.endpoint.bLength = LIBUSB_DT_ENDPOINT_AUDIO_SIZE;
  EXPECT_THAT(Rebuilt(tree), ElementsAreArray({
                                 9, 2,    45,   0, 1,    2,    6,    0xC0, 25,    // configuration
                                 3, 0x41, 1,                                      // its extra bytes
                                 9, 4,    3,    0, 0,    0xFF, 0xFE, 0xFD, 8,     // setting 0
                                 2, 0x42,                                         //
                                 9, 4,    3,    1, 1,    0xFF, 0xFE, 0xFD, 8,     // setting 1
                                 9, 5,    0x81, 5, 0x02, 0x04, 1,    0xB1, 0xB2,  // endpoint, with the audio fields
                                 4, 0x43, 1,    2,
                             }));
}

TEST(RebuiltConfiguration, IsSizedByWhatIsThereWhateverTheTreeClaims) {
  const Bytes some(10, 2);
  struct Row {
    const char* what;
    std::function<void(DescriptorTree&)> lie;
    std::size_t size;
  };
  const std::vector<Row> rows = {
      {"nothing", [](DescriptorTree&) {}, 34},
      {"total of 0", [](DescriptorTree& t) { t.config.wTotalLength = 0; }, 34},
      {"total of 65535", [](DescriptorTree& t) { t.config.wTotalLength = 0xFFFF; }, 34},
      {"configuration length 0", [](DescriptorTree& t) { t.config.bLength = 0; }, 34},
      {"configuration length 255", [](DescriptorTree& t) { t.config.bLength = 255; }, 34},
      {"setting length 255", [](DescriptorTree& t) { t.settings[1].bLength = 255; }, 34},
      {"endpoint length 0", [](DescriptorTree& t) { t.endpoint.bLength = 0; }, 34},
      {"endpoint length 8", [](DescriptorTree& t) { t.endpoint.bLength = 8; }, 34},
      {"endpoint length 255", [](DescriptorTree& t) { t.endpoint.bLength = 255; }, 36},
      {"extra bytes at null", [](DescriptorTree& t) { t.config.extra_length = 10; }, 34},
      {"extra bytes of negative length",
       [&](DescriptorTree& t) {
         DescriptorTree::SetExtra(t.endpoint, some);
         t.endpoint.extra_length = -5;
       },
       34},
      {"no settings", [](DescriptorTree& t) { t.interface.num_altsetting = 0; }, 9},
      {"settings below zero", [](DescriptorTree& t) { t.interface.num_altsetting = -1; }, 9},
      {"settings at null", [](DescriptorTree& t) { t.interface.altsetting = nullptr; }, 9},
      {"endpoints at null", [](DescriptorTree& t) { t.settings[0].bNumEndpoints = 255; }, 34},
      {"interfaces at null", [](DescriptorTree& t) { t.config.interface = nullptr; }, 9},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    DescriptorTree tree;
    row.lie(tree);
    const Bytes raw = Rebuilt(tree);
    ASSERT_EQ(raw.size(), row.size);
    EXPECT_EQ(raw[0], 9);
    EXPECT_EQ(raw[2] + raw[3] * 256U, raw.size()) << "wTotalLength";
    std::size_t at = 0;  // Every descriptor can be found.
    while (at < raw.size()) {
      ASSERT_GE(raw[at], 2);
      at += raw[at];
    }
    EXPECT_EQ(at, raw.size());
  }
}

TEST(RebuiltConfiguration, OfMoreThan64KiBIsNone) {
  DescriptorTree tree;
  const Bytes extra(0xFFFF - 34 + 1);
  DescriptorTree::SetExtra(tree.settings[0], extra);
  const CapturingLog log(OSKELO_LOG_ERROR);
  EXPECT_THAT(Rebuilt(tree), IsEmpty());
  EXPECT_THAT(log.Messages(),
              ElementsAre("Error:configuration descriptor of 65536 bytes is larger than a device can have"));
  --tree.settings[0].extra_length;
  const Bytes largest = Rebuilt(tree);
  ASSERT_EQ(largest.size(), 0xFFFFU);
  EXPECT_EQ(largest[2] + largest[3] * 256U, 0xFFFFU);
}

}  // namespace
}  // namespace vel
