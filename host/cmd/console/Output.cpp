#include "cmd/console/Output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "os/StandardStreams.h"

namespace vel {
namespace {

std::FILE* gResults = nullptr;  // Standard output as it was, while it is diverted.

}  // namespace

void Print(const std::string& text) {
  std::FILE* const results = gResults == nullptr ? stdout : gResults;
  if (std::fputs(text.c_str(), results) < 0 || std::fflush(results) != 0) {
    throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

void DivertStandardOutput(int descriptor) {
  gResults = TurnOutputTo(descriptor);
}

void RestoreStandardOutput() {
  if (gResults != nullptr) {
    TurnOutputBack(gResults);
  }
}

int ResultsDescriptor() {
  return DescriptorOf(gResults == nullptr ? stdout : gResults);
}

void Note(const std::string& line) {
  static_cast<void>(std::fputs((line + "\n").c_str(), stderr));
  static_cast<void>(std::fflush(stderr));
}

}  // namespace vel
