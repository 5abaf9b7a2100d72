// The module's log lines. Arguments are evaluated only when the level is on.
#ifndef VEL_BASE_VEL_LOG_H
#define VEL_BASE_VEL_LOG_H

#include <string>
#include <string_view>

#include "oskelo/log.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// The part of a path behind its last separator.
constexpr const char* BaseName(const char* path) {
  const std::string_view view(path);
  const std::size_t separator = view.find_last_of("/\\");
  return separator == std::string_view::npos ? path : path + separator + 1;
}

// Text from outside, made fit for a log line: at most `maxBytes` of it, control characters and bytes above
// 0x7E as \xNN, "..." where it was cut.
std::string EscapeForLog(std::string_view text, std::size_t maxBytes = 256);

}  // namespace vel

#define VEL_LOG_LINE(level, function, line, format, ...)                                             \
  do {                                                                                               \
    if (oskeloLogIsOn(level) != 0) {                                                                 \
      oskeloLogPrint(0, level, "VEL_LOG", "%s %s(%d): " format, ::vel::BaseName(__FILE__), function, \
                     line __VA_OPT__(, ) __VA_ARGS__);                                               \
    }                                                                                                \
  } while (false)

// Lines of a component.
#define VEL_DEBUG(format, ...) \
  VEL_LOG_LINE(OSKELO_LOG_DEBUG, __func__, __LINE__, "Debug:" format __VA_OPT__(, ) __VA_ARGS__)
#define VEL_WARN(format, ...) \
  VEL_LOG_LINE(OSKELO_LOG_WARN, __func__, __LINE__, "Warn:" format __VA_OPT__(, ) __VA_ARGS__)
#define VEL_ERROR(format, ...) \
  VEL_LOG_LINE(OSKELO_LOG_ERROR, __func__, __LINE__, "Error:" format __VA_OPT__(, ) __VA_ARGS__)

// Lines of a driver or session, which name its device. `base` is a VelDeviceBase* and may be null.
#define VEL_DEVICE_LINE(level, word, base, function, line, format, ...)                          \
  VEL_LOG_LINE(level, function, line, "[bus:%p devid:%u cid:%u 0x%.4x:0x%.4x]" word format "\n", \
               static_cast<const void*>(base), (base) == nullptr ? 0U : (base)->GetDevId(),      \
               (base) == nullptr ? 0U : (base)->GetChannelId(),                                  \
               (base) == nullptr ? 0U : unsigned{(base)->GetVendorId()},                         \
               (base) == nullptr ? 0U : unsigned{(base)->GetProductId()} __VA_OPT__(, ) __VA_ARGS__)
#define VEL_DEVICE_DEBUG(base, format, ...) \
  VEL_DEVICE_LINE(OSKELO_LOG_DEBUG, "Debug:", base, __func__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__)
#define VEL_DEVICE_ERROR(base, format, ...) \
  VEL_DEVICE_LINE(OSKELO_LOG_ERROR, "Error:", base, __func__, __LINE__, format __VA_OPT__(, ) __VA_ARGS__)

#endif
