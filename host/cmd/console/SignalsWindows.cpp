#include <atomic>

#include "cmd/console/Signals.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace vel {
namespace {

std::atomic<bool> gIsCatching{false};
std::atomic<const StopSignal*> gStop{nullptr};  // Until it was raised.

// On a thread that the system makes for it.
BOOL WINAPI OnControl(DWORD event) {
  if (!gIsCatching) {
    return FALSE;
  }
  const StopSignal* const stop = gStop.exchange(nullptr);
  if (stop != nullptr) {
    stop->Raise();
  }
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) {
    return stop != nullptr ? TRUE : FALSE;
  }
  // The system ends the process when this returns, and after a few seconds anyhow: until then devices are given back.
  Sleep(INFINITE);
  return TRUE;
}

}  // namespace

CaughtSignals::CaughtSignals() {
  gStop = &mStop;
  gIsCatching = true;
  // Once, and never taken out again: the system may hold its list while a handler waits.
  static const BOOL added = SetConsoleCtrlHandler(&OnControl, TRUE);
  static_cast<void>(added);
}

CaughtSignals::~CaughtSignals() {
  gIsCatching = false;
}

}  // namespace vel
