#include "oskelo/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "VelLog.h"
#include "vel/VelTracer.h"

namespace vel {
namespace {

using testing::ElementsAre;

// Collects lines as "level tag text" and gives level and sink back.
class LogTest : public testing::Test {
 protected:
  LogTest() : mLevel(oskeloLogGetLevel()) {
    oskeloLogSetSink(
        [](void* context, int level, const char* tag, const char* text) {
          static_cast<LogTest*>(context)->mLines.push_back(std::to_string(level) + " " + tag + " " + text);
        },
        this);
  }
  ~LogTest() override {
    oskeloLogSetSink(nullptr, nullptr);
    oskeloLogSetLevel(mLevel);
  }

  std::vector<std::string> mLines;

 private:
  const int mLevel;
};

TEST_F(LogTest, WritesWhatIsAtOrAboveTheLevel) {
  for (int current = OSKELO_LOG_DEBUG; current <= OSKELO_LOG_OFF; ++current) {
    oskeloLogSetLevel(current);
    for (int level = OSKELO_LOG_DEBUG; level <= OSKELO_LOG_OFF; ++level) {
      SCOPED_TRACE(testing::Message() << "line " << level << " at level " << current);
      const int on = level >= current && level != OSKELO_LOG_OFF ? 1 : 0;
      mLines.clear();
      EXPECT_EQ(oskeloLogIsOn(level), on);
      // Whoever formats what is off reads address 1.
      EXPECT_EQ(oskeloLogPrint(0, level, "T", "%s", on == 1 ? "x" : reinterpret_cast<const char*>(1)), on);
      EXPECT_EQ(mLines.size(), static_cast<std::size_t>(on));
    }
  }
}

TEST_F(LogTest, LineIsFormattedTextWithoutItsLineFeedsAndCut) {
  oskeloLogSetLevel(OSKELO_LOG_DEBUG);
  oskeloLogPrint(0, OSKELO_LOG_ERROR, "VEL_LOG", "a %s %u", "b", 7U);
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "two\n\n");
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "in\nside");
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "%s", "\n");
  EXPECT_THAT(mLines, ElementsAre("4 VEL_LOG a b 7", "1 VEL_LOG two", "1 VEL_LOG in\nside", "1 VEL_LOG "));
  for (const std::size_t length : {4095U, 4096U, 100000U}) {
    mLines.clear();
    oskeloLogPrint(0, OSKELO_LOG_WARN, "T", "%s", std::string(length, 'x').c_str());
    EXPECT_THAT(mLines, ElementsAre("3 T " + std::string(4095, 'x')));
  }
}

TEST_F(LogTest, LevelsHaveNamesAndAreClamped) {
  for (const auto& [name, level] : std::initializer_list<std::pair<const char*, int>>{
           {"debug", 1}, {"info", 2}, {"warn", 3}, {"error", 4}, {"off", 5}, {"Debug", -1}, {"warn ", -1}, {"3", -1}}) {
    EXPECT_EQ(oskeloLogLevelByName(name), level) << name;
  }
  EXPECT_EQ(oskeloLogLevelByName(nullptr), -1);
  for (const auto& [given, level] : {std::pair{-5, 1}, {0, 1}, {3, 3}, {6, 5}, {1000, 5}}) {
    oskeloLogSetLevel(given);
    EXPECT_EQ(oskeloLogGetLevel(), level) << given;
  }
}

struct Owner {
  std::atomic<bool> gone{false};
  std::atomic<int> lines{0};
};

void CountLine(void* context, int /*level*/, const char* /*tag*/, const char* /*text*/) {
  auto& owner = *static_cast<Owner*>(context);
  EXPECT_FALSE(owner.gone);
  ++owner.lines;
}

TEST_F(LogTest, SwappedSinkIsNotCalledAnyMoreWhileThreadsLog) {
  oskeloLogSetLevel(OSKELO_LOG_WARN);
  std::array<Owner, 100> owners;
  std::atomic<bool> done{false};
  oskeloLogSetSink(&CountLine, &owners[0]);
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i) {
    writers.emplace_back([&done] {
      while (!done) {
        oskeloLogPrint(0, OSKELO_LOG_ERROR, "T", "line");
      }
    });
  }
  for (std::size_t i = 1; i < owners.size(); ++i) {
    while (owners[i - 1].lines == 0) {
      std::this_thread::yield();
    }
    oskeloLogSetSink(&CountLine, &owners[i]);
    owners[i - 1].gone = true;
  }
  done = true;
  for (std::thread& writer : writers) {
    writer.join();
  }
}

TEST(VelLogTest, BaseNameIsWhatFollowsTheLastSeparator) {
  for (const char* folder : {"", "src/", "c:\\x\\", "x/y\\", "x\\y/"}) {
    EXPECT_STREQ(BaseName((std::string(folder) + "a.cpp").c_str()), "a.cpp");
  }
  EXPECT_STREQ(BaseName("dir/"), "");
}

TEST(VelLogTest, TextFromOutsideIsEscapedAndBounded) {
  EXPECT_EQ(EscapeForLog("plain ~ text! %s", 256), "plain ~ text! %s");
  EXPECT_EQ(EscapeForLog("a\nb\r\tc\x1B[2J", 256), "a\\x0ab\\x0d\\x09c\\x1b[2J");
  EXPECT_EQ(EscapeForLog(std::string("\0\x7F\x80\xFF", 4), 256), "\\x00\\x7f\\x80\\xff");
  EXPECT_EQ(EscapeForLog("abc", 3), "abc");
  EXPECT_EQ(EscapeForLog("\n\n", 1), "\\x0a...");
  EXPECT_EQ(EscapeForLog("x", 0), "...");
  EXPECT_EQ(EscapeForLog(std::string(257, 'y')), std::string(256, 'y') + "...");
}

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

TEST_F(LogTest, LinesHaveTheirTwoShapes) {
  oskeloLogSetLevel(OSKELO_LOG_DEBUG);
  const FakeDevice device;
  const FakeDevice* volatile none = nullptr;  // The compiler is not to see that it is null.
  VEL_DEBUG("a %d", 1);
  VEL_WARN(" b");
  VEL_ERROR("c\n");
  VEL_DEVICE_DEBUG(&device, "d %s", "e");
  VEL_DEVICE_ERROR(none, "f");
  const int line = __LINE__ - 5;
  const auto prefix = [&](int i) { return " VEL_LOG Log_test.cpp TestBody(" + std::to_string(line + i) + "): "; };
  std::array<char, 32> address{};
  std::snprintf(address.data(), address.size(), "%p", static_cast<const void*>(&device));
  EXPECT_THAT(mLines,
              testing::ElementsAre(
                  "1" + prefix(0) + "Debug:a 1", "3" + prefix(1) + "Warn: b", "4" + prefix(2) + "Error:c",
                  "1" + prefix(3) + "[bus:" + address.data() + " devid:3000000000 cid:4 0xff00:0x0010]Debug:d e",
                  "4" + prefix(4) + "[bus:(nil) devid:0 cid:0 0x0000:0x0000]Error:f"));
}

TEST_F(LogTest, ArgumentsAreEvaluatedOnlyWhenTheLevelIsOn) {
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

TEST(VelTracerTest, SpanIdsAreUniqueAcrossThreadsAndNeverZero) {
  constexpr std::size_t kIds = 10000;
  std::vector<std::vector<std::uint64_t>> taken(4);
  {
    std::vector<std::jthread> threads;
    for (auto& mine : taken) {
      threads.emplace_back([&mine] {
        for (std::size_t i = 0; i < kIds; ++i) {
          mine.push_back(VelTracer::GetInstance().NewSpanId());
        }
      });
    }
  }
  std::set<std::uint64_t> all;
  for (const auto& mine : taken) {
    all.insert(mine.begin(), mine.end());
  }
  EXPECT_EQ(all.size(), taken.size() * kIds);
  EXPECT_FALSE(all.contains(0));
}

}  // namespace
}  // namespace vel
