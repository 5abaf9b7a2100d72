#include "oskelo/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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
      EXPECT_EQ(oskeloLogPrint(0, level, "T", "x%d", 5), on);
      EXPECT_EQ(mLines.size(), static_cast<std::size_t>(on));
    }
  }
}

TEST_F(LogTest, FormatsNothingWhenTheLevelIsOff) {
  oskeloLogSetLevel(OSKELO_LOG_WARN);
  // Whoever formats this reads address 1.
  const char* const nowhere = reinterpret_cast<const char*>(std::uintptr_t{1});
  EXPECT_EQ(oskeloLogPrint(0, OSKELO_LOG_INFO, nowhere, "%s", nowhere), 0);
  EXPECT_THAT(mLines, IsEmpty());
}

TEST_F(LogTest, LineIsFormattedTextWithoutItsLineFeeds) {
  oskeloLogSetLevel(OSKELO_LOG_DEBUG);
  oskeloLogPrint(0, OSKELO_LOG_ERROR, "VEL_LOG", "a %s %u", "b", 7U);
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "one\n");
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "two\n\n");
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "in\nside");
  oskeloLogPrint(0, OSKELO_LOG_DEBUG, "VEL_LOG", "%s", "\n");
  EXPECT_THAT(mLines,
              ElementsAre("4 VEL_LOG a b 7", "1 VEL_LOG one", "1 VEL_LOG two", "1 VEL_LOG in\nside", "1 VEL_LOG "));
}

TEST_F(LogTest, LongLineIsCut) {
  oskeloLogSetLevel(OSKELO_LOG_DEBUG);
  for (const std::size_t length : {4094U, 4095U, 4096U, 100000U}) {
    SCOPED_TRACE(length);
    mLines.clear();
    oskeloLogPrint(0, OSKELO_LOG_WARN, "T", "%s", std::string(length, 'x').c_str());
    EXPECT_THAT(mLines, ElementsAre("3 T " + std::string(std::min<std::size_t>(length, 4095), 'x')));
  }
}

TEST_F(LogTest, LevelIsClampedIntoTheEnumeration) {
  struct {
    int given;
    int level;
  } const cases[] = {{-5, OSKELO_LOG_DEBUG}, {0, OSKELO_LOG_DEBUG}, {3, OSKELO_LOG_WARN},
                     {5, OSKELO_LOG_OFF},    {6, OSKELO_LOG_OFF},   {1000, OSKELO_LOG_OFF}};
  for (const auto& test : cases) {
    oskeloLogSetLevel(test.given);
    EXPECT_EQ(oskeloLogGetLevel(), test.level) << test.given;
  }
}

TEST_F(LogTest, LevelsHaveNames) {
  struct {
    const char* name;
    int level;
  } const cases[] = {{"debug", 1}, {"info", 2},   {"warn", 3}, {"error", 4}, {"off", 5},    {"Debug", -1},
                     {"", -1},     {"warn ", -1}, {"war", -1}, {"3", -1},    {nullptr, -1}, {"warning", -1}};
  for (const auto& test : cases) {
    EXPECT_EQ(oskeloLogLevelByName(test.name), test.level) << (test.name == nullptr ? "null" : test.name);
  }
}

// Standard output and standard error of the probe, run with the variable as given.
std::string Probe(const std::string& environment) {
  const std::string command = environment + " " LOG_PROBE " 2>&1";
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
  std::string text;
  std::array<char, 256> line{};
  while (pipe != nullptr && std::fgets(line.data(), line.size(), pipe.get()) != nullptr) {
    text += line.data();
  }
  return text;
}

TEST(LogEnvironmentTest, VariableChoosesTheLevelAndTheDefaultIsWarn) {
  struct {
    const char* environment;
    int level;
  } const cases[] = {{"env -u VEL_LOG_LEVEL", 3}, {"VEL_LOG_LEVEL=debug", 1}, {"VEL_LOG_LEVEL=info", 2},
                     {"VEL_LOG_LEVEL=warn", 3},   {"VEL_LOG_LEVEL=error", 4}, {"VEL_LOG_LEVEL=off", 5},
                     {"VEL_LOG_LEVEL=", 3},       {"VEL_LOG_LEVEL=loud", 3}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.environment);
    const std::string text = Probe(test.environment);
    EXPECT_THAT(text, testing::StartsWith("level " + std::to_string(test.level) + "\n"));
    for (int level = OSKELO_LOG_DEBUG; level <= OSKELO_LOG_OFF; ++level) {
      const bool written = text.find(" PROBE line of level " + std::to_string(level) + "\n") != std::string::npos;
      EXPECT_EQ(written, level >= test.level && level < OSKELO_LOG_OFF) << text;
    }
  }
}

struct Owner {
  std::atomic<bool> gone{false};
  std::atomic<int> lines{0};
  std::atomic<int> late{0};
};

void CountLine(void* context, int /*level*/, const char* /*tag*/, const char* /*text*/) {
  auto& owner = *static_cast<Owner*>(context);
  ++owner.lines;
  owner.late += owner.gone ? 1 : 0;
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
  for (const Owner& owner : owners) {
    EXPECT_EQ(owner.late, 0);
  }
}

}  // namespace
