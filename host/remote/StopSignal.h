#ifndef VIRTUSB_HOST_REMOTE_STOP_SIGNAL_H
#define VIRTUSB_HOST_REMOTE_STOP_SIGNAL_H

#include <chrono>

#include "os/Fd.h"

namespace vel {

// Wakes those who wait for a descriptor: once raised it stays raised. Any thread; Raise also from a signal handler.
class StopSignal {
 public:
  // Throws std::system_error when the process has no descriptors left.
  StopSignal();

  void Raise() const;
  bool IsRaised() const;
  // Readable once raised.
  RawFd Fd() const { return mRead.Get(); }
  // Waits until a descriptor is ready for `events`. False once raised, and after `limit`; a negative limit is none.
  bool WaitFor(RawFd fd, short events, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;

 private:
  UniqueFd mRead;
  UniqueFd mWrite;
};

}  // namespace vel

#endif
