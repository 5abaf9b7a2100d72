#include "support/CapturingLog.h"

#include <algorithm>
#include <utility>

namespace vel {
namespace {

LogLine Parse(std::string text) {
  LogLine line;
  const std::size_t space = text.find(' ');
  const std::size_t bracket = text.find('(', space == std::string::npos ? 0 : space);
  const std::size_t colon = text.find("): ", bracket == std::string::npos ? 0 : bracket);
  if (space != std::string::npos && bracket != std::string::npos && colon != std::string::npos) {
    line.function = text.substr(space + 1, bracket - space - 1);
    line.message = text.substr(colon + 3);
    if (line.message.starts_with("[bus:")) {
      line.message.erase(0, line.message.find(']') + 1);
    }
  }
  line.text = std::move(text);
  return line;
}

}  // namespace

CapturingLog::CapturingLog(int level, Hook hook) : mFormerLevel(oskeloLogGetLevel()), mHook(std::move(hook)) {
  oskeloLogSetSink(&CapturingLog::Take, this);
  oskeloLogSetLevel(level);
}

CapturingLog::~CapturingLog() {
  oskeloLogSetLevel(mFormerLevel);
  oskeloLogSetSink(nullptr, nullptr);
}

void CapturingLog::Take(void* self, int /*level*/, const char* /*tag*/, const char* text) {
  auto& log = *static_cast<CapturingLog*>(self);
  const LogLine line = Parse(text);
  {
    const MutexLock lock(log.mMutex);
    log.mLines.push_back(line);
  }
  if (log.mHook) {
    log.mHook(line);
  }
}

std::vector<LogLine> CapturingLog::Lines() const {
  const MutexLock lock(mMutex);
  return mLines;
}

std::vector<std::string> CapturingLog::Messages(std::string_view function) const {
  std::vector<std::string> messages;
  for (const LogLine& line : Lines()) {
    if (function.empty() || line.function == function) {
      messages.push_back(line.message);
    }
  }
  return messages;
}

std::size_t CapturingLog::Count(std::string_view part) const {
  const std::vector<LogLine> lines = Lines();
  return static_cast<std::size_t>(std::count_if(
      lines.begin(), lines.end(), [part](const LogLine& line) { return line.text.find(part) != std::string::npos; }));
}

}  // namespace vel
