#include "cmd/console/ModuleLog.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <memory>
#include <utility>

#include "cmd/console/FailureAdvice.h"
#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "os/Program.h"
#include "oskelo/log.h"

namespace vel {
namespace {

constexpr std::size_t kKept = 32;
constexpr std::size_t kLongestLine = 4096;
// As much as can be printed at one time.
constexpr std::size_t kLongestPrint = 256U << 10U;
constexpr char kPrintedTag[] = "printed";

std::string TimeStamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  const std::tm local = LocalTime(seconds);
  std::array<char, sizeof "2000-01-01 00:00:00"> text{};
  static_cast<void>(std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local));
  return Format("%s.%03d", text.data(), static_cast<int>(milliseconds));
}

}  // namespace

ModuleLog::ModuleLog(bool shown) : mShown(shown) {
  DivertStandardOutput(mPrinted.Writer());
  mPrinted.CloseWriter();
  mReader = std::thread([this] { ReadPrinted(); });
  oskeloLogSetSink(&ModuleLog::OnLine, this);
}

ModuleLog::~ModuleLog() {
  End();
}

void ModuleLog::End() {
  if (mReader.joinable()) {
    oskeloLogSetSink(nullptr, nullptr);
    RestoreStandardOutput();
    mPrinted.End();
    mReader.join();
  }
}

void ModuleLog::ReadPrinted() {
  const auto text = std::make_unique_for_overwrite<char[]>(kLongestPrint);
  std::string begun;         // A line that may go on.
  bool lacksItsEnd = false;  // The line that was taken last; some functions print it by itself.
  while (const std::size_t count = mPrinted.Read({text.get(), kLongestPrint})) {
    begun.append(text.get(), count);
    std::string_view rest = begun;
    rest.remove_prefix(std::exchange(lacksItsEnd, false) && rest.front() == '\n' ? 1 : 0);
    for (std::size_t end = 0; (end = rest.find('\n')) != std::string_view::npos; rest.remove_prefix(end + 1)) {
      Take(kPrintedTag, rest.substr(0, end));
    }
    if (!rest.empty() && (PrintPipe::KeepsPrintsApart() || rest.size() > kLongestLine)) {
      Take(kPrintedTag, rest);
      rest = {};
      lacksItsEnd = true;
    }
    begun = std::string(rest);
  }
  if (!begun.empty()) {
    Take(kPrintedTag, begun);
  }
}

void ModuleLog::OnLine(void* self, int level, const char* tag, const char* text) {
  static_cast<ModuleLog*>(self)->Take(tag == nullptr ? "" : tag, text);
  if (level >= OSKELO_LOG_ERROR) {
    AdviseOnce(text);
  }
}

void ModuleLog::Take(std::string_view tag, std::string_view text) {
  std::string line = TimeStamp() + " " + std::string(tag) + " " + std::string(text);
  if (mShown) {
    Note(line);
    return;
  }
  const MutexLock lock(mMutex);
  if (mKept.size() == kKept) {
    mKept.pop_front();
    ++mForgotten;
  }
  mKept.push_back(std::move(line));
}

void ModuleLog::ShowKept() {
  End();
  const MutexLock lock(mMutex);
  if (mForgotten > 0) {
    Note(Format("(%llu earlier lines of the module: --log warn shows all)",
                static_cast<unsigned long long>(mForgotten)));
  }
  for (const std::string& line : mKept) {
    Note(line);
  }
}

}  // namespace vel
