#include "remote/ConfigModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST(ConfigModelTest, IsNothingWhenCutAnywhere) {
  for (std::size_t n = 0; n < kConfig.size(); ++n) {
    const Bytes cut(kConfig.begin(), kConfig.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(ReadConfigModel(cut).has_value()) << n << " bytes";
  }
}

}  // namespace
}  // namespace vel
