#include "remote/ChildProcess.h"

#include <utility>

namespace vel {
namespace {

// Long enough for a device to be given back, by a service that found its input's end or was told to stop.
constexpr std::chrono::milliseconds kTimeToEnd{3000};
constexpr std::chrono::milliseconds kTimeToEndOnceStopped{100};
constexpr std::chrono::milliseconds kTimeToStop{10000};

}  // namespace

ChildProcess::ChildProcess(std::vector<std::string> words, const StopSignal& stop)
    : mStop(stop), mProcess(std::move(words)) {}

ChildProcess::~ChildProcess() {
  static_cast<void>(TakeInput());
  static_cast<void>(TakeOutput());
  mStop.WaitFor(mProcess.End(), kReadable, kTimeToEnd);
  if (!AwaitEnd(mStop.IsRaised() ? kTimeToEndOnceStopped : std::chrono::milliseconds(0))) {
    mProcess.AskToEnd();
    if (!AwaitEnd(kTimeToStop)) {
      mProcess.Kill();
    }
  }
}

}  // namespace vel
