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

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;

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

TEST(Policy, AnswersDescriptorRequestsOfEmulatedDevicesAndClearsHaltsOfAll) {
  for (const bool emulated : {false, true}) {
    RecordingDeviceBase remote({.address = static_cast<std::uint8_t>(emulated ? 0x80 : 0x7F)});
    ScriptedUsbIo io(remote);
    VirtUDevice device(&remote, &ScriptedUsbIo::Create);
    device.Init();
    libusb_device_descriptor descriptor{};
    DescriptorTree tree;
    io.Describe(&descriptor, &tree.config);
    io.Answer("ControlTransfer", 3);
    device.OpenUsbDev();
    Bytes data(64, 0xEE);
    EXPECT_EQ(device.ControlTransfer(0x80, 6, 0x0100, 0, data.data(), 64, 9), emulated ? 18 : 3);
    EXPECT_EQ(device.ControlTransfer(0x80, 6, 0x0200, 0, data.data(), 64, 9), emulated ? 34 : 3);
    EXPECT_EQ(device.ControlTransfer(0x80, 6, 0x0300, 0, data.data(), 64, 9), 3);
    // Clears the halt, whose failure is only logged, and reaches the device.
    io.Answer("ClearHalt", LIBUSB_ERROR_PIPE);
    EXPECT_EQ(device.ControlTransfer(2, 1, 0, 0x81, nullptr, 0, 9), 0);
    const std::vector<std::string> calls = io.Calls();
    EXPECT_EQ(std::vector(calls.end() - 2, calls.end()),
              std::vector<std::string>({"ClearHalt 129", "ControlTransfer 2 1 0 129 0 9"}));
  }
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
  const struct {
    const char* what;
    void (*lie)(DescriptorTree&);
    std::size_t size;
  } rows[] = {
      {"total of 65535", [](DescriptorTree& t) { t.config.wTotalLength = 0xFFFF; }, 34},
      {"configuration length 0", [](DescriptorTree& t) { t.config.bLength = 0; }, 34},
      {"configuration length 255", [](DescriptorTree& t) { t.config.bLength = 255; }, 34},
      {"setting length 255", [](DescriptorTree& t) { t.settings[1].bLength = 255; }, 34},
      {"endpoint length 0", [](DescriptorTree& t) { t.endpoint.bLength = 0; }, 34},
      {"endpoint length 8", [](DescriptorTree& t) { t.endpoint.bLength = 8; }, 34},
      {"endpoint length 255", [](DescriptorTree& t) { t.endpoint.bLength = 255; }, 36},
      {"extra bytes at null", [](DescriptorTree& t) { t.config.extra_length = 10; }, 34},
      {"extra bytes of negative length", [](DescriptorTree& t) { t.endpoint.extra_length = -5; }, 34},
      {"settings below zero", [](DescriptorTree& t) { t.interface.num_altsetting = -1; }, 9},
      {"settings at null", [](DescriptorTree& t) { t.interface.altsetting = nullptr; }, 9},
      {"endpoints at null", [](DescriptorTree& t) { t.settings[0].bNumEndpoints = 255; }, 34},
      {"interfaces at null", [](DescriptorTree& t) { t.config.interface = nullptr; }, 9},
  };
  for (const auto& row : rows) {
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
