#include "cmd/describe/DescriptorText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

namespace vel {
namespace {

using testing::HasSubstr;

// A video interface with these bytes behind it, and their strings.
Enumeration WithExtra(Bytes extra) {
  Enumeration found;
  found.bus = 3;
  found.address = 130;
  found.device = {18, 1, 0x0210, 0xEF, 2, 1, 64, 0x1A86, 0x7523, 0x0264, 1, 2, 0, 1};
  found.strings = {{1, "Maker"}, {2, "Port & Keys"}, {4, "Eye"}};
  AltSettingModel setting{9, 4, 0, 0, 1, 0x0E, 1, 0, 4, {}, std::move(extra)};
  setting.endpoints.push_back({9, 5, 0x02, 0x15, 0x0C00, 1, 2, 0x83, {3, 0x30, 0xAB}});
  found.config = ConfigModel{9, 2, 0x4B, 2, 1, 0, 0xE0, 49, {{setting}}, {}};
  return found;
}

TEST(DescriptorTextTest, MalformedDescriptorsArePrintedAsFarAsTheyAreWhole) {
  const std::pair<Bytes, const char*> cases[] = {
      {{0, 0x24, 1}, "      ** INVALID, with a length that cannot be:  00 24 01\n      Endpoint"},
      {{1, 0x24}, "      ** INVALID, with a length that cannot be:  01 24\n      Endpoint"},
      {{2, 0x24, 9, 0x24, 3},
       "      ** UNRECOGNIZED:  02 24\n      ** INVALID, with a length that cannot be:  09 24 03\n"},
      {{6, 0x24, 4, 7, 200, 1},
       "        baSource( 0)            1\n        Warning: Descriptor too short\n      Endpoint"},
      {{5, 0x24, 2, 1, 1},
       "        bTerminalID             1\n        Warning: Descriptor too short: 01\n      Endpoint"},
      {{3, 0x24, 1}, "      1 (HEADER)\n        Warning: Descriptor too short\n      Endpoint"},
      {{11, 0x24, 3, 8, 1, 1, 0, 6, 0, 0xA, 0xB}, "        junk at descriptor end: 0a 0b\n      Endpoint"}};
  for (const auto& [extra, lines] : cases) {
    const Enumeration found = WithExtra(extra);
    EXPECT_THAT(DescriptorText(found), HasSubstr(lines));
  }
  Enumeration found = WithExtra({});
  found.config.reset();
  found.configBroken = true;
  EXPECT_THAT(DescriptorText(found), HasSubstr("** INVALID configuration"));
}

// The last of three. What the text says of them is compared with that of lsusb on real devices.
TEST(DescriptorTextTest, CapabilitiesAreDecoded) {
  Enumeration found = WithExtra({});
  found.capabilities = {5,    15,   45,   0,    3,    7,    16,   2,    2,    0,    0,    0,    10,   16,   3,
                        0,    14,   0,    1,    10,   255,  7,    23,   16,   5,    0,    0xDF, 0x60, 0xDD, 0xD8,
                        0x89, 0x45, 0xC7, 0x4C, 0x9C, 0xD2, 0x65, 0x9D, 0x9E, 0x64, 0x8A, 0x9F, 1,    2,    3};
  EXPECT_THAT(DescriptorJson(found)["capabilities"][2].dump(),
              HasSubstr(R"("PlatformCapabilityUUID":"{d8dd60df-4589-4cc7-9cd2-659d9e648a9f}")"));
}

}  // namespace
}  // namespace vel
