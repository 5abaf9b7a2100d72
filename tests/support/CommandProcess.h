#ifndef VIRTUSB_TESTS_SUPPORT_COMMAND_PROCESS_H
#define VIRTUSB_TESTS_SUPPORT_COMMAND_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "remote/FdStream.h"
#include "remote/RemoteDevice.h"

namespace vel {

// A program in a child process, the command as a rule. It may say as much on standard error as a pipe holds between
// two calls here. One thread uses it; what does not come until the deadline throws std::runtime_error with all that
// the program said.
class CommandProcess {
 public:
  struct Ending {
    int status = 0;  // Exit status, or 128 and the number of the signal that killed it.
    std::string output;
    std::string messages;
  };

  CommandProcess(std::vector<std::string> words, std::chrono::seconds deadline);
  CommandProcess(const CommandProcess&) = delete;
  CommandProcess& operator=(const CommandProcess&) = delete;
  // Kills the child that was not waited for.
  ~CommandProcess();

  pid_t Pid() const { return mPid; }
  // The remote side of a device that the command serves on its standard input and output.
  RemoteDevice& Remote();
  // Waits until standard error has this text `times` times. All that it has then.
  const std::string& AwaitMessage(const std::string& text, int times = 1);

  // Closes standard input, `lastBytes` being the last that comes there, and waits for the end.
  Ending Leave(std::span<const std::uint8_t> lastBytes = {});
  Ending Kill(int signal);
  // Waits until the program has ended by itself.
  Ending Await();

 private:
  const std::chrono::seconds mDeadline;
  pid_t mPid = -1;
  UniqueFd mInput;
  UniqueFd mOutput;
  UniqueFd mErrors;
  std::unique_ptr<RemoteDevice> mRemote;
  std::string mMessages;
};

}  // namespace vel

#endif
