#ifndef VIRTUSB_HOST_OBSERVE_REPORT_SIGNAL_H
#define VIRTUSB_HOST_OBSERVE_REPORT_SIGNAL_H

#include "os/Fd.h"

namespace vel {

// SIGUSR1 as something to wait for, as long as this is there; it is ignored afterwards. Windows has none: it never
// comes. One at a time in a process.
class ReportSignal {
 public:
  // Throws std::system_error when the process has no descriptors left.
  ReportSignal();
  ReportSignal(const ReportSignal&) = delete;
  ReportSignal& operator=(const ReportSignal&) = delete;
  ~ReportSignal();

  // How a person asks by it, to follow what else is said; empty where there is none.
  static const char* HowToAsk();
  // Readable when a signal has come.
  RawFd Fd() const;
  // Forgets those that have come.
  void Take() const;
};

}  // namespace vel

#endif
