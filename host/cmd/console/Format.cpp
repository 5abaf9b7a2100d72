#include "cmd/console/Format.h"

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

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

}  // namespace vel
