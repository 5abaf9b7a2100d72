#include "oskelo/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "base/VelLog.h"

namespace vel {
namespace {

using testing::ElementsAre;

// Collects lines as "level tag text" and gives level and sink back.
class Log : public testing::Test {
 protected:
  Log() : mLevel(oskeloLogGetLevel()) {
    oskeloLogSetSink(
        [](void* context, int level, const char* tag, const char* text) {
          static_cast<Log*>(context)->mLines.push_back(std::to_string(level) + " " + tag + " " + text);
        },
        this);
  }
  ~Log() override {
    oskeloLogSetSink(nullptr, nullptr);
    oskeloLogSetLevel(mLevel);
  }

  std::vector<std::string> mLines;

 private:
  const int mLevel;
};

TEST_F(Log, SwappedSinkIsNotCalledAnyMoreWhileThreadsLog) {
  struct Owner {
    std::atomic<bool> gone{false};
    std::atomic<int> lines{0};
  };
  const auto take = [](void* context, int /*level*/, const char* /*tag*/, const char* /*text*/) {
    EXPECT_FALSE(static_cast<Owner*>(context)->gone);
    ++static_cast<Owner*>(context)->lines;
  };
  std::array<Owner, 100> owners;
  std::atomic<bool> done{false};
  const auto write = [&done] {
    while (!done) {
      oskeloLogPrint(0, OSKELO_LOG_ERROR, "T", "line");
    }
  };
  oskeloLogSetSink(take, &owners[0]);
  const std::array<std::jthread, 2> writers = {std::jthread(write), std::jthread(write)};
  for (std::size_t i = 1; i < owners.size(); ++i) {
    while (owners[i - 1].lines == 0) {
      std::this_thread::yield();
    }
    oskeloLogSetSink(take, &owners[i]);
    owners[i - 1].gone = true;
  }
  done = true;
}

TEST_F(Log, LinesHaveTheirShapeAndArgumentsAreEvaluatedOnlyWhenTheLevelIsOn) {
  oskeloLogSetLevel(OSKELO_LOG_WARN);
  const VelDeviceBase* volatile none = nullptr;  // The compiler is not to see that it is null.
  int evaluated = 0;
  VEL_DEBUG("%d", ++evaluated);
  VEL_DEVICE_DEBUG(none, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  VEL_WARN(" b%d", ++evaluated);
  VEL_DEVICE_ERROR(none, "f\n");
  const int line = __LINE__ - 2;
  char null[20] = {};  // As this system writes it.
  static_cast<void>(std::snprintf(null, sizeof null, "%p", static_cast<void*>(nullptr)));
  const auto prefix = [&](int i) { return " VEL_LOG log_test.cpp TestBody(" + std::to_string(line + i) + "): "; };
  EXPECT_THAT(mLines, ElementsAre("3" + prefix(0) + "Warn: b1",
                                  "4" + prefix(1) + "[bus:" + null + " devid:0 cid:0 0x0000:0x0000]Error:f"));
}

TEST(LogText, TextFromOutsideIsEscapedAndBounded) {
  EXPECT_EQ(EscapeForLog("plain ~ text! %s", 256), "plain ~ text! %s");
  EXPECT_EQ(EscapeForLog("a\nb\r\tc\x1B[2J", 256), "a\\x0ab\\x0d\\x09c\\x1b[2J");
  EXPECT_EQ(EscapeForLog(std::string("\0\x7F\x80\xFF", 4), 256), "\\x00\\x7f\\x80\\xff");
  EXPECT_EQ(EscapeForLog("abc", 3), "abc");
  EXPECT_EQ(EscapeForLog("\n\n", 1), "\\x0a...");
  EXPECT_EQ(EscapeForLog("x", 0), "...");
  EXPECT_EQ(EscapeForLog(std::string(257, 'y')), std::string(256, 'y') + "...");
}

}  // namespace
}  // namespace vel
