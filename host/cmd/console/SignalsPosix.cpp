#include <array>
#include <csignal>

#include "cmd/console/Signals.h"
#include "os/Program.h"

namespace vel {
namespace {

constexpr std::array kNumbers = {SIGINT, SIGTERM, SIGHUP};

const StopSignal* gStop = nullptr;  // Changed only while no handler is there.

extern "C" void OnStopSignal(int /*number*/) {
  gStop->Raise();
}

void Handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  sigaction(number, nullptr, &action);
  if (action.sa_handler != SIG_IGN) {
    action.sa_handler = handler;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(number, &action, nullptr);
  }
}

}  // namespace

CaughtSignals::CaughtSignals() {
  gStop = &mStop;
  for (const int number : kNumbers) {
    Handle(number, &OnStopSignal);
  }
  IgnoreBrokenPipes();
}

CaughtSignals::~CaughtSignals() {
  for (const int number : kNumbers) {
    Handle(number, SIG_DFL);
  }
}

}  // namespace vel
