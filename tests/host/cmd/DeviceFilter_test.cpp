#include "cmd/devices/DeviceFilter.h"
#include "cmd/console/UsageError.h"

#include <gmock/gmock.h>

namespace vel {
namespace {

TEST(DeviceFilter, WhatIsNoFilterIsNamedByRuleAndField) {
  const struct {
    const char* text;
    const char* problem;
  } cases[] = {
      {"", "rule 1 is empty: "},
      {"-1,-1,-1,-1,1|", "rule 2 is empty: "},
      {"-1,-1,-1,-1,1| |1,1,1,1,1", "rule 2 is empty: "},
      {"-1,-1,-1,-1,0|8,0x1234g,-1,-1,1", "rule 2: vendor 0x1234g is no number: "},
      {"8,0951,-1,-1,1", "rule 1: vendor 0951 is no number: "},
      {"8,1,0x,-1,1", "rule 1: product 0x is no number: "},
      {"8,1,1,-2,1", "rule 1: version -2 is no number: "},
      {"256,1,1,1,1", "rule 1: class 256 is above 255 "},
      {"8,0x10000,1,1,1", "rule 1: vendor 0x10000 is above 65535 "},
      {"8,1,99999999999,1,1", "rule 1: product 99999999999 is above 65535 "},
      {"8,,1,1,1", "rule 1: vendor is missing: "},
      {"8,1,1,1", "rule 1: allow is missing: "},
      {"8,1,1,1,2", "rule 1: allow 2 is neither 0 nor 1"},
      {"8,1,1,1,1,1", "rule 1 has more than five fields: "},
  };
  for (const auto& [text, problem] : cases) {
    try {
      const DeviceFilter filter(text);
      ADD_FAILURE() << text << " is taken";
    } catch (const UsageError& error) {
      EXPECT_THAT(error.what(), testing::StartsWith(problem));
    }
  }
}

TEST(DeviceFilter, FirstRuleThatFitsDecidesOfEachClass) {
  using Interfaces = std::vector<LocalDevice::Interface>;
  constexpr UsbClass kSideHid = {3, 0, 0};
  constexpr UsbClass kDisk = {8, 6, 0x50};
  const Interfaces headset = {{0, {1, 1, 0}}, {3, kSideHid}};
  const struct {
    const char* filter;
    UsbClass device;
    Interfaces interfaces;
    const char* verdict;
  } cases[] = {
      {"-1,-1,-1,-1,1", {}, {{0, kDisk}}, "allowed by rule 1"},
      {" 0x08 , 0x1209 , 1 , 0x0310 , 1 ", {}, {{0, kDisk}}, "allowed by rule 1"},
      {"8,0x1209,1,0x0311,0|8,0x1209,2,-1,0|8,0x120a,-1,-1,0|8,-1,-1,-1,1", {}, {{0, kDisk}}, "allowed by rule 4"},
      {"8,-1,-1,-1,0|-1,-1,-1,-1,1", {}, {{0, {255, 0, 0}}, {4, kDisk}}, "refused by rule 1 (interface 4, class 8)"},
      {"8,-1,-1,-1,1|14,-1,-1,-1,1",
       {0xEF, 2, 1},
       {{0, {14, 1, 0}}, {1, kDisk}, {2, kDisk}},
       "allowed by rule 2 and rule 1"},
      {"8,-1,-1,-1,1", {}, {{0, kDisk}, {1, {3, 1, 1}}}, "no rule (interface 1, class 3)"},
      {"8,-1,-1,-1,1", {0xFF, 0, 0}, {{0, kDisk}}, "no rule (the device, class 255)"},
      {"1,-1,-1,-1,1", {}, headset, "allowed by rule 1"},
      {"1,-1,-1,-1,1|3,-1,-1,-1,0", {}, {{0, kSideHid}}, "refused by rule 2 (interface 0, class 3)"},
      {"3,-1,-1,-1,0", {}, {{0, kSideHid}, {1, kSideHid}}, "refused by rule 1 (interface 0, class 3)"},
      {"0xef,-1,-1,-1,0|-1,-1,-1,-1,1", {0xEF, 2, 1}, {}, "refused by rule 1 (the device, class 239)"},
      {"-1,-1,-1,-1,1", {9, 0, 1}, {{0, {9, 0, 0}}}, "never: a hub (the device, class 9)"},
      {"-1,-1,-1,-1,1", {}, {{0, kDisk}, {1, {9, 0, 0}}}, "never: a hub (interface 1, class 9)"},
  };
  LocalDevice device;
  device.identity = {1, 4, 0x1209, 1, ""};
  device.version = 0x310;
  for (const auto& [filter, usbClass, interfaces, verdict] : cases) {
    device.usbClass = usbClass;
    device.interfaces = interfaces;
    const DeviceFilter::Verdict found = DeviceFilter(filter).Judge(device);
    EXPECT_EQ(found.text, verdict) << filter;
    EXPECT_EQ(found.allowed, std::string(verdict).starts_with("allowed")) << filter;
  }
  device.imported = true;
  EXPECT_FALSE(DeviceFilter("-1,-1,-1,-1,1").Judge(device).allowed);
}

}  // namespace
}  // namespace vel
