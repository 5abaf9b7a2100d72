#ifndef VIRTUSB_HOST_CMD_CONSOLE_MODULE_LOG_H
#define VIRTUSB_HOST_CMD_CONSOLE_MODULE_LOG_H

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <thread>

#include "os/StandardStreams.h"
#include "vel/Mutex.h"

namespace vel {

// What the module says beside its replies while a command runs: the lines of the log, and text that it prints to
// standard output, which may lack a line's end. Each becomes a line on standard error, at once or when the command has
// failed. One at a time in a process; the module's threads come in.
class ModuleLog {
 public:
  // With `shown`, at once. Otherwise the last lines are kept. Throws std::system_error when the process has no
  // descriptors left, or no standard output.
  explicit ModuleLog(bool shown);
  ModuleLog(const ModuleLog&) = delete;
  ModuleLog& operator=(const ModuleLog&) = delete;
  ~ModuleLog();

  // Shows what was kept, up to what was said last, and ends the log.
  void ShowKept() VEL_EXCLUDES(mMutex);

 private:
  void End();
  static void OnLine(void* self, int level, const char* tag, const char* text);
  void ReadPrinted();
  void Take(std::string_view tag, std::string_view text) VEL_EXCLUDES(mMutex);

  const bool mShown;
  PrintPipe mPrinted;  // What is printed to standard output.
  std::thread mReader;
  Mutex mMutex;
  std::deque<std::string> mKept VEL_GUARDED_BY(mMutex);
  std::uint64_t mForgotten VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace vel

#endif
