#include "cmd/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace vel {
namespace {

std::FILE* gResults = nullptr;  // Standard output as it was, while it is diverted.

}  // namespace

std::string Format(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<std::size_t>(std::max(std::vsnprintf(nullptr, 0, format, arguments), 0)), '\0');
  const int written = std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  return written < 0 ? std::string() : text;
}

void Print(const std::string& text) {
  std::FILE* const results = gResults == nullptr ? stdout : gResults;
  if (std::fputs(text.c_str(), results) < 0 || std::fflush(results) != 0) {
    throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

void DivertStandardOutput(int descriptor) {
  static_cast<void>(std::fflush(stdout));
  const int results = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  gResults = results < 0 ? nullptr : fdopen(results, "w");
  if (gResults == nullptr || dup2(descriptor, STDOUT_FILENO) < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot use standard output");
  }
  static_cast<void>(std::setvbuf(stdout, nullptr, _IONBF, 0));
}

void RestoreStandardOutput() {
  if (gResults != nullptr) {
    static_cast<void>(std::fflush(stdout));
    dup2(fileno(gResults), STDOUT_FILENO);
  }
}

int ResultsDescriptor() {
  return gResults == nullptr ? STDOUT_FILENO : fileno(gResults);
}

void Note(const std::string& line) {
  static_cast<void>(std::fputs((line + "\n").c_str(), stderr));
}

}  // namespace vel
