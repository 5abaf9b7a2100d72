#ifndef VIRTUSB_HOST_REMOTE_CHILD_PROCESS_H
#define VIRTUSB_HOST_REMOTE_CHILD_PROCESS_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "os/Process.h"
#include "remote/StopSignal.h"

namespace vel {

// A program whose standard input and output are pipes to this process; its standard error is this process's. A
// terminal's interrupt does not reach it: it is to end when its input does, after this process has said what it has
// to say. One thread but for AwaitEnd.
class ChildProcess {
 public:
  // Looks the first word up in PATH, without a shell. Throws std::runtime_error when it cannot be run. `stop` outlives
  // it.
  ChildProcess(std::vector<std::string> words, const StopSignal& stop);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Closes what is left of the pipes and waits for the end; who does not end is told to, soon once stopped, and killed
  // at last.
  ~ChildProcess();

  // The pipes' ends here, once each.
  UniqueFd TakeInput() { return mProcess.TakeInput(); }
  UniqueFd TakeOutput() { return mProcess.TakeOutput(); }
  // How it ended, for people; nothing when it has not ended after this time. Any thread.
  std::optional<std::string> AwaitEnd(std::chrono::milliseconds time) const { return mProcess.AwaitEnd(time); }

 private:
  const StopSignal& mStop;
  Process mProcess;
};

}  // namespace vel

#endif
