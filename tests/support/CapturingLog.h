#ifndef VIRTUSB_TESTS_SUPPORT_CAPTURING_LOG_H
#define VIRTUSB_TESTS_SUPPORT_CAPTURING_LOG_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "oskelo/log.h"
#include "vel/Mutex.h"

namespace vel {

// "file function(line): [device]Word:message", taken apart. What a line does not have is empty.
struct LogLine {
  std::string text;
  std::string function;
  std::string message;  // With its word: "Error:FAIL 0".
};

// Takes the log's lines down as long as it lives, then restores level and standard error. Any
// thread.
class CapturingLog {
 public:
  using Hook = std::function<void(const LogLine&)>;

  // The hook is called on the thread that logs, after the line was taken down; it may block, and
  // must not log.
  explicit CapturingLog(int level = OSKELO_LOG_DEBUG, Hook hook = nullptr);
  CapturingLog(const CapturingLog&) = delete;
  CapturingLog& operator=(const CapturingLog&) = delete;
  ~CapturingLog();

  std::vector<LogLine> Lines() const;
  // Messages of one function, or of all.
  std::vector<std::string> Messages(std::string_view function = {}) const;
  // Lines that hold `part`.
  std::size_t Count(std::string_view part) const;

 private:
  static void Take(void* self, int level, const char* tag, const char* text);

  const int mFormerLevel;
  const Hook mHook;
  mutable Mutex mMutex;
  std::vector<LogLine> mLines VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
