#include <unistd.h>

#include <array>
#include <csignal>
#include <utility>

#include "observe/ReportSignal.h"

namespace vel {
namespace {

// Stays: a handler may be in it, on any thread.
const std::pair<UniqueFd, UniqueFd>& Pipe() {
  static const auto& ends = *new std::pair<UniqueFd, UniqueFd>(MakePipe(Waiting::kReturns));
  return ends;
}

int gWrite = -1;  // Changed only while no handler is there.

extern "C" void OnReportSignal(int /*number*/) {
  PutByte(gWrite);  // Into a full pipe: one is asked for already.
}

}  // namespace

ReportSignal::ReportSignal() {
  gWrite = Pipe().second.Get();
  struct sigaction action {};
  action.sa_handler = &OnReportSignal;
  action.sa_flags = SA_RESTART;
  sigaction(SIGUSR1, &action, nullptr);
}

ReportSignal::~ReportSignal() {
  static_cast<void>(std::signal(SIGUSR1, SIG_IGN));
}

const char* ReportSignal::HowToAsk() {
  return "; SIGUSR1 asks for it at any time";
}

RawFd ReportSignal::Fd() const {
  return Pipe().first.Get();
}

void ReportSignal::Take() const {
  std::array<char, 256> bytes{};
  while (read(Fd(), bytes.data(), bytes.size()) > 0) {
  }
}

}  // namespace vel
