#include "codec/FfmpegLog.h"

#include <array>
#include <cstdarg>
#include <string>
#include <string_view>

extern "C" {
#include <libavutil/log.h>
}

#include "base/LockOrder.h"
#include "base/VelLog.h"

namespace vel {
namespace {

struct Routes {
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  int count VEL_GUARDED_BY(mutex) = 0;
};

Routes& TheRoutes() {
  static Routes routes;
  return routes;
}

int LevelOf(int ffmpegLevel) {
  if (ffmpegLevel <= AV_LOG_ERROR) {
    return OSKELO_LOG_ERROR;
  }
  return ffmpegLevel <= AV_LOG_WARNING ? OSKELO_LOG_WARN : OSKELO_LOG_DEBUG;
}

extern "C" void FfmpegMessage(void* object, int level, const char* format, va_list arguments) {
  const int velLevel = LevelOf(level);
  if (level > av_log_get_level() || oskeloLogIsOn(velLevel) == 0) {
    return;
  }
  std::array<char, 512> text{};
  int printPrefix = 1;
  av_log_format_line2(object, level, format, arguments, text.data(), static_cast<int>(text.size()), &printPrefix);
  std::string_view line(text.data());
  line = line.substr(0, line.find_last_not_of("\r\n") + 1);
  const std::string escaped = EscapeForLog(line, text.size());
  switch (velLevel) {
    case OSKELO_LOG_ERROR:
      VEL_ERROR("%s", escaped.c_str());
      break;
    case OSKELO_LOG_WARN:
      VEL_WARN("%s", escaped.c_str());
      break;
    default:
      VEL_DEBUG("%s", escaped.c_str());
      break;
  }
}

}  // namespace

FfmpegLogRoute::FfmpegLogRoute() {
  Routes& routes = TheRoutes();
  const MutexLock lock(routes.mutex);
  if (++routes.count == 1) {
    av_log_set_callback(&FfmpegMessage);
  }
}

FfmpegLogRoute::~FfmpegLogRoute() {
  Routes& routes = TheRoutes();
  const MutexLock lock(routes.mutex);
  if (--routes.count == 0) {
    av_log_set_callback(&av_log_default_callback);
  }
}

}  // namespace vel
