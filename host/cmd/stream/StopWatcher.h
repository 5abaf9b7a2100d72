#ifndef VIRTUSB_HOST_CMD_STREAM_STOP_WATCHER_H
#define VIRTUSB_HOST_CMD_STREAM_STOP_WATCHER_H

#include <functional>
#include <thread>

#include "remote/FdStream.h"

namespace vel {

// Calls a function, on a thread of its own, when a stop signal is raised. Not after the destructor has returned.
class StopWatcher {
 public:
  StopWatcher(const StopSignal& stop, std::function<void()> onStop);
  StopWatcher(const StopWatcher&) = delete;
  StopWatcher& operator=(const StopWatcher&) = delete;
  ~StopWatcher();

 private:
  const StopSignal mEnd;
  std::thread mThread;
};

}  // namespace vel

#endif
