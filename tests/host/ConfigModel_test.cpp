#include "remote/ConfigModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Two interfaces, the first with two alternate settings; extra bytes at every level. 0xEE: what a
// reader ignores.
const Bytes kConfig = {
    9, 2,    0x4B, 0x01, 2,    1,    4,  0xA0, 50,   0xEE, 0xEE, 0xEE, 4, 0, 0, 0,  // configuration, 4 extra bytes
    2, 0,    0,    0,                                                               // alternate settings of interface 0
    9, 4,    0,    0,    0,    3,    1,  2,    5,    0xEE, 0xEE, 0xEE, 3, 0, 0, 0,  // setting 0, 3 extra bytes
    3, 0x21, 0x10,                                                                  //
    9, 4,    0,    1,    2,    3,    1,  2,    6,    0xEE, 0xEE, 0xEE, 0, 0, 0, 0,  // setting 1
    7, 5,    0x81, 3,    0x08, 0x00, 10, 0,    0,    0xEE, 0xEE, 0xEE, 2, 0, 0, 0,  // endpoint 1 IN, 2 extra bytes
    2, 0x30,                                                                        //
    9, 5,    0x02, 1,    0x00, 0x04, 1,  7,    0x83, 0xEE, 0xEE, 0xEE, 0, 0, 0, 0,  // endpoint 2 OUT
    1, 0,    0,    0,                                                               // alternate settings of interface 1
    9, 4,    1,    0,    0,    0xFF, 0,  0,    0,    0xEE, 0xEE, 0xEE, 0, 0, 0, 0,  // setting 0
    4, 0x0B, 0xAA, 0xBB};                                                           // the configuration's extra bytes
constexpr std::size_t kNumInterfaces = 4;
constexpr std::size_t kConfigExtra = 12;
constexpr std::size_t kSettings = 16;
constexpr std::size_t kFirstNumEndpoints = 24;
constexpr std::size_t kFirstExtra = 32;
constexpr std::size_t kEndpointExtra = 67;

TEST(ConfigModelTest, ReadsEveryFieldInItsPlace) {
  const auto config = ReadConfigModel(kConfig);
  ASSERT_TRUE(config.has_value());
  EXPECT_EQ(config->wTotalLength, 0x014B);
  EXPECT_EQ(config->bNumInterfaces, 2);
  EXPECT_EQ(config->bConfigurationValue, 1);
  EXPECT_EQ(config->iConfiguration, 4);
  EXPECT_EQ(config->bmAttributes, 0xA0);
  EXPECT_EQ(config->MaxPower, 50);
  EXPECT_THAT(config->extra, ElementsAre(4, 0x0B, 0xAA, 0xBB));
  ASSERT_THAT(config->interfaces, ElementsAre(SizeIs(2), SizeIs(1)));
  const AltSettingModel& first = config->interfaces[0][0];
  EXPECT_EQ(first.bInterfaceClass, 3);
  EXPECT_EQ(first.bInterfaceSubClass, 1);
  EXPECT_EQ(first.bInterfaceProtocol, 2);
  EXPECT_EQ(first.iInterface, 5);
  EXPECT_THAT(first.extra, ElementsAre(3, 0x21, 0x10));
  EXPECT_THAT(first.endpoints, IsEmpty());
  const AltSettingModel& second = config->interfaces[0][1];
  EXPECT_EQ(second.bAlternateSetting, 1);
  ASSERT_THAT(second.endpoints, SizeIs(2));
  EXPECT_EQ(second.endpoints[0].bEndpointAddress, 0x81);
  EXPECT_EQ(second.endpoints[0].wMaxPacketSize, 8);
  EXPECT_EQ(second.endpoints[0].bInterval, 10);
  EXPECT_THAT(second.endpoints[0].extra, ElementsAre(2, 0x30));
  EXPECT_EQ(second.endpoints[1].bmAttributes, 1);
  EXPECT_EQ(second.endpoints[1].wMaxPacketSize, 1024);
  EXPECT_EQ(second.endpoints[1].bRefresh, 7);
  EXPECT_EQ(second.endpoints[1].bSynchAddress, 0x83);
  EXPECT_EQ(config->interfaces[1][0].bInterfaceNumber, 1);
  EXPECT_EQ(config->interfaces[1][0].bInterfaceClass, 0xFF);
}

TEST(ConfigModelTest, IsNothingWhenCutAnywhereAndIgnoresWhatFollows) {
  for (std::size_t n = 0; n < kConfig.size(); ++n) {
    const Bytes cut(kConfig.begin(), kConfig.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(ReadConfigModel(cut).has_value()) << n << " bytes";
  }
  Bytes longer = kConfig;
  longer.push_back(0x55);
  EXPECT_TRUE(ReadConfigModel(longer).has_value());
}

TEST(ConfigModelTest, CountsThatLieAreRefusedAtOnce) {
  struct {
    const char* name;
    std::size_t offset;
    std::size_t size;
  } const cases[] = {{"interfaces", kNumInterfaces, 1},      {"extra of the configuration", kConfigExtra, 4},
                     {"alternate settings", kSettings, 4},   {"endpoints", kFirstNumEndpoints, 1},
                     {"extra of a setting", kFirstExtra, 4}, {"extra of an endpoint", kEndpointExtra, 4}};
  for (const auto& test : cases) {
    Bytes lying = kConfig;
    std::fill_n(lying.begin() + static_cast<std::ptrdiff_t>(test.offset), test.size, std::uint8_t{0xFF});
    EXPECT_FALSE(ReadConfigModel(lying).has_value()) << test.name;
  }
}

TEST(DeviceModelTest, NeedsAllEighteenBytes) {
  const Bytes bytes = {18, 1, 0x10, 0x02, 0xEF, 2, 1, 64, 0x86, 0x1A, 0x23, 0x75, 0x64, 0x02, 1, 2, 3, 4};
  for (std::size_t n = 0; n < bytes.size(); ++n) {
    EXPECT_FALSE(ReadDeviceModel(std::span(bytes).first(n)).has_value()) << n;
  }
  const auto device = ReadDeviceModel(bytes);
  ASSERT_TRUE(device.has_value());
  EXPECT_EQ(device->bcdUSB, 0x0210);
  EXPECT_EQ(device->bDeviceClass, 0xEF);
  EXPECT_EQ(device->bDeviceSubClass, 2);
  EXPECT_EQ(device->bDeviceProtocol, 1);
  EXPECT_EQ(device->bMaxPacketSize0, 64);
  EXPECT_EQ(device->idVendor, 0x1A86);
  EXPECT_EQ(device->idProduct, 0x7523);
  EXPECT_EQ(device->bcdDevice, 0x0264);
  EXPECT_EQ(device->iManufacturer, 1);
  EXPECT_EQ(device->iProduct, 2);
  EXPECT_EQ(device->iSerialNumber, 3);
  EXPECT_EQ(device->bNumConfigurations, 4);
}

TEST(SplitDescriptorsTest, StopsAtTheLastWholeDescriptor) {
  struct {
    Bytes bytes;
    std::vector<std::size_t> sizes;
  } const cases[] = {{{}, {}},
                     {{2, 0x24}, {2}},
                     {{3, 0x24, 1, 2, 0x25}, {3, 2}},
                     {{2, 0x24, 0, 9}, {2}},
                     {{2, 0x24, 1, 9}, {2}},
                     {{2, 0x24, 3, 0x24}, {2}},
                     {{255, 0x24}, {}},
                     {{2, 0x24, 2}, {2}},
                     {{1}, {}}};
  for (const auto& test : cases) {
    std::vector<std::size_t> sizes;
    for (const auto descriptor : SplitDescriptors(test.bytes)) {
      sizes.push_back(descriptor.size());
    }
    EXPECT_EQ(sizes, test.sizes) << testing::PrintToString(test.bytes);
  }
}

}  // namespace
}  // namespace vel
