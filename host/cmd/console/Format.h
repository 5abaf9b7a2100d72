#ifndef VIRTUSB_HOST_CMD_CONSOLE_FORMAT_H
#define VIRTUSB_HOST_CMD_CONSOLE_FORMAT_H

#include <string>

namespace vel {

// Text made with printf's formats, of any length.
#ifdef __clang__
[[gnu::format(printf, 1, 2)]]
#else
[[gnu::format(gnu_printf, 1, 2)]]  // C99's, on Windows too.
#endif
std::string
Format(const char* format, ...);

}  // namespace vel

#endif
