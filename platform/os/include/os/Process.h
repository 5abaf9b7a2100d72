#ifndef VIRTUSB_PLATFORM_OS_PROCESS_H
#define VIRTUSB_PLATFORM_OS_PROCESS_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "os/Fd.h"

namespace vel {

// What exec takes: the words, which stay the caller's, and null.
std::vector<char*> ArgumentVector(std::vector<std::string>& words);

// A program that this one runs. Its standard input and output are pipes to here, its standard error is this process's.
// A terminal's interrupt does not reach it. One thread but for AwaitEnd.
class Process {
 public:
  // Looks the first word up in PATH, without a shell. Throws std::runtime_error when it cannot be run.
  explicit Process(std::vector<std::string> words);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  // Waits for its end, without a limit.
  ~Process();

  // The pipes' ends here, once each.
  UniqueFd TakeInput() { return std::move(mInput); }
  UniqueFd TakeOutput() { return std::move(mOutput); }
  // Readable once it has ended.
  RawFd End() const { return mEnd.Get(); }
  // How it ended, for people; nothing when it has not ended after this time. Any thread.
  std::optional<std::string> AwaitEnd(std::chrono::milliseconds time) const;
  // It can still put things right, or not.
  void AskToEnd();
  void Kill();

 private:
  struct Handles;

  std::unique_ptr<Handles> mHandles;
  UniqueFd mEnd;
  UniqueFd mInput;
  UniqueFd mOutput;
};

}  // namespace vel

#endif
