#include "VelLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

namespace vel {
namespace {

static_assert(std::string_view(BaseName("src/io/LibusbIo.cpp")) == "LibusbIo.cpp");

TEST(VelLogTest, BaseNameIsWhatFollowsTheLastSeparator) {
  struct {
    const char* path;
    const char* name;
  } const cases[] = {{"a.cpp", "a.cpp"},
                     {"src/a.cpp", "a.cpp"},
                     {"c:\\x\\a.cpp", "a.cpp"},
                     {"x/y\\a.cpp", "a.cpp"},
                     {"x\\y/a.cpp", "a.cpp"},
                     {"/", ""},
                     {"dir/", ""},
                     {"", ""}};
  for (const auto& test : cases) {
    EXPECT_STREQ(BaseName(test.path), test.name);
  }
}

TEST(VelLogTest, TextFromOutsideIsEscapedAndBounded) {
  struct {
    std::string text;
    std::size_t bound;
    std::string escaped;
  } const cases[] = {{"", 256, ""},
                     {"plain ~ text!", 256, "plain ~ text!"},
                     {"a\nb\r\tc\x1B[2J", 256, "a\\x0ab\\x0d\\x09c\\x1b[2J"},
                     {std::string("\0\x7F\x80\xFF", 4), 256, "\\x00\\x7f\\x80\\xff"},
                     {"%s%n", 256, "%s%n"},
                     {"abc", 3, "abc"},
                     {"abcd", 3, "abc..."},
                     {"\n\n", 1, "\\x0a..."},
                     {"x", 0, "..."},
                     {std::string(300, 'y'), 256, std::string(256, 'y') + "..."}};
  for (const auto& test : cases) {
    EXPECT_EQ(EscapeForLog(test.text, test.bound), test.escaped);
  }
  EXPECT_EQ(EscapeForLog(std::string(257, 'y')), std::string(256, 'y') + "...");
}

class VelLogLineTest : public testing::Test {
 protected:
  VelLogLineTest() : mLevel(oskeloLogGetLevel()) {
    oskeloLogSetSink(
        [](void* context, int level, const char* tag, const char* text) {
          EXPECT_STREQ(tag, "VEL_LOG");
          static_cast<VelLogLineTest*>(context)->mLines.push_back(std::to_string(level) + " " + text);
        },
        this);
  }
  ~VelLogLineTest() override {
    oskeloLogSetSink(nullptr, nullptr);
    oskeloLogSetLevel(mLevel);
  }

  std::vector<std::string> mLines;

 private:
  const int mLevel;
};

class FakeDevice final : public VelDeviceBase {
 public:
  std::uint8_t GetBusNumber() const override { return 1; }
  std::uint8_t GetDeviceAddress() const override { return 2; }
  int IsRedirected() const override { return 1; }
  std::uint32_t GetDevId() const override { return 3000000000U; }
  std::uint32_t GetChannelId() const override { return 4; }
  std::uint16_t GetVendorId() const override { return 0xFF00; }
  std::uint16_t GetProductId() const override { return 0x0010; }
  const char* GetArgs() const override { return ""; }
  std::uint8_t TakeReplyReqId(std::uint16_t, std::uint32_t) override { return 0; }
  int Send(std::unique_ptr<VelPacket>, std::uint32_t) override { return -1; }
  void Trace(std::uint64_t, const char*, const VelTraceAttribute*, std::size_t) override {}
};

TEST_F(VelLogLineTest, LinesHaveTheirTwoShapes) {
  oskeloLogSetLevel(OSKELO_LOG_DEBUG);
  const FakeDevice device;
  const FakeDevice* volatile none = nullptr;  // The compiler is not to see that it is null.
  std::vector<int> lines;
  VEL_DEBUG("a %d", 1);
  lines.push_back(__LINE__ - 1);
  VEL_WARN(" b");
  lines.push_back(__LINE__ - 1);
  VEL_ERROR("c\n");
  lines.push_back(__LINE__ - 1);
  VEL_DEVICE_DEBUG(&device, "d %s", "e");
  lines.push_back(__LINE__ - 1);
  VEL_DEVICE_ERROR(none, "f");
  lines.push_back(__LINE__ - 1);
  const auto prefix = [&](std::size_t i) { return " VelLog_test.cpp TestBody(" + std::to_string(lines[i]) + "): "; };
  std::array<char, 32> address{};
  std::snprintf(address.data(), address.size(), "%p", static_cast<const void*>(&device));
  EXPECT_THAT(mLines,
              testing::ElementsAre(
                  "1" + prefix(0) + "Debug:a 1", "3" + prefix(1) + "Warn: b", "4" + prefix(2) + "Error:c",
                  "1" + prefix(3) + "[bus:" + address.data() + " devid:3000000000 cid:4 0xff00:0x0010]Debug:d e",
                  "4" + prefix(4) + "[bus:(nil) devid:0 cid:0 0x0000:0x0000]Error:f"));
}

TEST_F(VelLogLineTest, ArgumentsAreEvaluatedOnlyWhenTheLevelIsOn) {
  int evaluated = 0;
  const FakeDevice device;
  oskeloLogSetLevel(OSKELO_LOG_WARN);
  VEL_DEBUG("%d", ++evaluated);
  VEL_DEVICE_DEBUG(&device, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  VEL_WARN("%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(mLines.size(), 1U);
}

}  // namespace
}  // namespace vel
