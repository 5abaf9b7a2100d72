#include "observe/ReportSignal.h"

namespace vel {

ReportSignal::ReportSignal() = default;

ReportSignal::~ReportSignal() = default;

const char* ReportSignal::HowToAsk() {
  return "";
}

RawFd ReportSignal::Fd() const {
  return kNoFd;
}

void ReportSignal::Take() const {}

}  // namespace vel
