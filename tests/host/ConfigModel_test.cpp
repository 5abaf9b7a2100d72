#include "remote/ConfigModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

namespace vel {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Two interfaces, the first with two alternate settings; extra bytes at every level. 0xEE: what a reader ignores.
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
  EXPECT_EQ(config->bConfigurationValue, 1);
  EXPECT_EQ(config->iConfiguration, 4);
  EXPECT_EQ(config->bmAttributes, 0xA0);
  EXPECT_EQ(config->MaxPower, 50);
  EXPECT_THAT(config->extra, ElementsAre(4, 0x0B, 0xAA, 0xBB));
  ASSERT_THAT(config->interfaces, ElementsAre(SizeIs(2), SizeIs(1)));
  const AltSettingModel& first = config->interfaces[0][0];
  EXPECT_THAT(first, FieldsAre(9, 4, 0, 0, 0, 3, 1, 2, 5, IsEmpty(), ElementsAre(3, 0x21, 0x10)));
  EXPECT_THAT(config->interfaces[0][1].endpoints,
              ElementsAre(FieldsAre(7, 5, 0x81, 3, 8, 10, 0, 0, ElementsAre(2, 0x30)),
                          FieldsAre(9, 5, 0x02, 1, 1024, 1, 7, 0x83, IsEmpty())));
  EXPECT_EQ(config->interfaces[0][1].bAlternateSetting, 1);
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
  constexpr std::pair<std::size_t, int> kCounts[] = {{kNumInterfaces, 1},     {kConfigExtra, 4}, {kSettings, 4},
                                                     {kFirstNumEndpoints, 1}, {kFirstExtra, 4},  {kEndpointExtra, 4}};
  for (const auto& [offset, size] : kCounts) {
    Bytes lying = kConfig;
    std::fill_n(lying.begin() + static_cast<std::ptrdiff_t>(offset), size, std::uint8_t{0xFF});
    EXPECT_FALSE(ReadConfigModel(lying).has_value()) << offset;
  }
}

TEST(DeviceModelTest, NeedsAllEighteenBytes) {
  const Bytes bytes = {18, 1, 0x10, 0x02, 0xEF, 2, 1, 64, 0x86, 0x1A, 0x23, 0x75, 0x64, 0x02, 1, 2, 3, 4};
  EXPECT_FALSE(ReadDeviceModel(std::span(bytes).first(17)).has_value());
  EXPECT_THAT(ReadDeviceModel(bytes),
              testing::Optional(FieldsAre(18, 1, 0x0210, 0xEF, 2, 1, 64, 0x1A86, 0x7523, 0x0264, 1, 2, 3, 4)));
}

TEST(SplitDescriptorsTest, StopsAtTheLastWholeDescriptor) {
  const std::pair<Bytes, std::vector<std::size_t>> cases[] = {{{}, {}},
                                                              {{3, 0x24, 1, 2, 0x25}, {3, 2}},
                                                              {{2, 0x24, 0, 9}, {2}},
                                                              {{2, 0x24, 1, 9}, {2}},
                                                              {{2, 0x24, 3, 0x24}, {2}},
                                                              {{255, 0x24}, {}},
                                                              {{2, 0x24, 2}, {2}}};
  for (const auto& [bytes, expected] : cases) {
    std::vector<std::size_t> sizes;
    for (const auto descriptor : SplitDescriptors(bytes)) {
      sizes.push_back(descriptor.size());
    }
    EXPECT_EQ(sizes, expected) << testing::PrintToString(bytes);
  }
}

}  // namespace
}  // namespace vel
