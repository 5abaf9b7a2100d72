#include "cmd/Output.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace vel {

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
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

void Note(const std::string& line) {
  static_cast<void>(std::fputs((line + "\n").c_str(), stderr));
}

}  // namespace vel
