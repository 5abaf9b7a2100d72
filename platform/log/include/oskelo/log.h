// The client's log library: one printf-like call, a level, and one sink.
//
// Every call of this header may be made from any thread.
#ifndef OSKELO_LOG_H
#define OSKELO_LOG_H

#include "oskelo/oskelo_log_export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Levels in order of weight. A line is written when its level is at or above the current one.
enum OskeloLogLevel {
  OSKELO_LOG_DEBUG = 1,
  OSKELO_LOG_INFO = 2,
  OSKELO_LOG_WARN = 3,
  OSKELO_LOG_ERROR = 4,
  OSKELO_LOG_OFF = 5
};

// The level at the start: Warn, or what the environment variable VEL_LOG_LEVEL names
// (debug, info, warn, error or off).
#define OSKELO_LOG_LEVEL_VARIABLE "VEL_LOG_LEVEL"

// Formats are those of C99, on Windows too.
#if defined(__clang__)
#define OSKELO_LOG_PRINTF __attribute__((format(printf, 4, 5)))
#elif defined(__GNUC__)
#define OSKELO_LOG_PRINTF __attribute__((format(gnu_printf, 4, 5)))
#else
#define OSKELO_LOG_PRINTF
#endif

// Writes one line when `level` is on; formats nothing when it is off. `id` is the log's number (0, the
// only one there is), `tag` names the product's part. A line feed at the end of the text is dropped, a
// text is cut at 4095 bytes. Returns 1 when the line was written, 0 when its level is off.
OSKELO_LOG_EXPORT int oskeloLogPrint(int id, int level, const char* tag, const char* format, ...) OSKELO_LOG_PRINTF;

// The level, for oskeloLogIsOn alone: written by the library only.
extern OSKELO_LOG_EXPORT int oskeloLogCurrentLevel;

// 1 when a line of this level would be written. One relaxed load: made for guarding costly arguments.
static inline int oskeloLogIsOn(int level) {
  return level >= __atomic_load_n(&oskeloLogCurrentLevel, __ATOMIC_RELAXED) && level < OSKELO_LOG_OFF;
}

// Changes the level, effective at once; a value outside the enumeration is clamped into it.
OSKELO_LOG_EXPORT void oskeloLogSetLevel(int level);
OSKELO_LOG_EXPORT int oskeloLogGetLevel(void);

// Level for a name (debug, info, warn, error, off), or -1 for any other text and for null.
OSKELO_LOG_EXPORT int oskeloLogLevelByName(const char* name);

// Receives each finished line (no line feed at its end, valid during the call) instead of standard error.
// May be called from several threads at once; must not call back into this library.
typedef void (*OskeloLogSink)(void* context, int level, const char* tag, const char* text);

// Sets the sink; null restores standard error. When it returns, the former sink is no longer running
// and will not be called again.
OSKELO_LOG_EXPORT void oskeloLogSetSink(OskeloLogSink sink, void* context);

#ifdef __cplusplus
}
#endif

#endif
