#ifndef VIRTUSB_HOST_CMD_CONSOLE_SIGNALS_H
#define VIRTUSB_HOST_CMD_CONSOLE_SIGNALS_H

#include "remote/StopSignal.h"

namespace vel {

// Raises a stop signal when the process is interrupted, told to end, or its terminal is closed (SIGINT, SIGTERM,
// SIGHUP; on Windows Ctrl-C, Ctrl-Break, the console's closing, the session's end): once, the second time ends the
// process at once. What was to be ignored from the start, as nohup has it, stays so. Writing to a broken pipe is an
// error, and no signal. One at a time in a process.
class CaughtSignals {
 public:
  CaughtSignals();
  CaughtSignals(const CaughtSignals&) = delete;
  CaughtSignals& operator=(const CaughtSignals&) = delete;
  ~CaughtSignals();

  const StopSignal& Stop() const { return mStop; }

 private:
  const StopSignal& mStop = *new StopSignal;  // Stays: a handler may be in it, on any thread.
};

}  // namespace vel

#endif
