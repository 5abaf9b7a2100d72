#include "oskelo/log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string_view>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

namespace {

struct LevelName {
  int level;
  const char* name;
  spdlog::level::level_enum spdlogLevel;
};

constexpr std::array kLevels = {
    LevelName{OSKELO_LOG_DEBUG, "debug", spdlog::level::debug},
    LevelName{OSKELO_LOG_INFO, "info", spdlog::level::info},
    LevelName{OSKELO_LOG_WARN, "warn", spdlog::level::warn},
    LevelName{OSKELO_LOG_ERROR, "error", spdlog::level::err},
    LevelName{OSKELO_LOG_OFF, "off", spdlog::level::off},
};

int LevelFromEnvironment() noexcept {
  const int level = oskeloLogLevelByName(std::getenv(OSKELO_LOG_LEVEL_VARIABLE));
  return level < 0 ? OSKELO_LOG_WARN : level;
}

// Read by every line, written by oskeloLogSetSink: the writer waits for the lines that are under way.
struct Sink {
  std::shared_mutex mutex;
  OskeloLogSink function = nullptr;
  void* context = nullptr;
};

Sink& CurrentSink() {
  static Sink sink;
  return sink;
}

spdlog::logger& StandardError() {
  // Never destroyed: a thread may still log while the process exits.
  static spdlog::logger* const logger = [] {
    auto* created = new spdlog::logger("oskelo", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    created->set_level(spdlog::level::debug);
    created->set_pattern("%Y-%m-%d %H:%M:%S.%e %t %v");
    return created;
  }();
  return *logger;
}

}  // namespace

extern "C" {

// Read before the programs and libraries that use it begin.
int oskeloLogCurrentLevel = LevelFromEnvironment();

// Nothing leaves it but the result: it is called from C and from destructors. A line that there is no memory for is
// lost.
int oskeloLogPrint(int /*id*/, int level, const char* tag, const char* format, ...) try {
  if (oskeloLogIsOn(level) == 0) {
    return 0;
  }
  std::array<char, 4096> text;  // NOLINT(cppcoreguidelines-pro-type-member-init): vsnprintf writes it
  std::va_list arguments;
  va_start(arguments, format);
  const int wanted = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  std::size_t length = wanted < 0 ? 0 : std::min<std::size_t>(static_cast<std::size_t>(wanted), text.size() - 1);
  while (length > 0 && text[length - 1] == '\n') {
    --length;
  }
  text[length] = '\0';

  Sink& sink = CurrentSink();
  const std::shared_lock lock(sink.mutex);
  if (sink.function != nullptr) {
    sink.function(sink.context, level, tag, text.data());
    return 1;
  }
  const auto* found =
      std::find_if(kLevels.begin(), kLevels.end(), [level](const LevelName& entry) { return entry.level == level; });
  const auto spdlogLevel = found == kLevels.end() ? spdlog::level::err : found->spdlogLevel;
  StandardError().log(spdlogLevel, "{} {}", tag == nullptr ? "" : tag, std::string_view(text.data(), length));
  return 1;
} catch (...) {
  return 0;
}

void oskeloLogSetLevel(int level) {
  __atomic_store_n(&oskeloLogCurrentLevel, std::clamp<int>(level, OSKELO_LOG_DEBUG, OSKELO_LOG_OFF), __ATOMIC_RELAXED);
}

int oskeloLogGetLevel(void) {
  return __atomic_load_n(&oskeloLogCurrentLevel, __ATOMIC_RELAXED);
}

int oskeloLogLevelByName(const char* name) {
  for (const LevelName& entry : kLevels) {
    if (name != nullptr && std::strcmp(name, entry.name) == 0) {
      return entry.level;
    }
  }
  return -1;
}

void oskeloLogSetSink(OskeloLogSink function, void* context) {
  Sink& sink = CurrentSink();
  const std::unique_lock lock(sink.mutex);
  sink.function = function;
  sink.context = context;
}

}  // extern "C"
