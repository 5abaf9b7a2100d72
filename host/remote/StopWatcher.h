#ifndef VIRTUSB_HOST_REMOTE_STOP_WATCHER_H
#define VIRTUSB_HOST_REMOTE_STOP_WATCHER_H

#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include "remote/FdStream.h"

namespace vel {

// Whoever runs the program has ended it before this was done.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted") {}
};

// Calls a function, on a thread of its own, when a stop signal was raised and a while has passed since. Not after the
// destructor has returned.
class StopWatcher {
 public:
  // For what a stop has to end in good order before it is cut off.
  static constexpr std::chrono::milliseconds kGrace{350};

  StopWatcher(const StopSignal& stop, std::function<void()> onStop, std::chrono::milliseconds grace = {});
  StopWatcher(const StopWatcher&) = delete;
  StopWatcher& operator=(const StopWatcher&) = delete;
  ~StopWatcher();

 private:
  const StopSignal mEnd;
  std::thread mThread;
};

}  // namespace vel

#endif
