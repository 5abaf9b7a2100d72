// What the command writes: results to standard output, everything else to standard error.
#ifndef VIRTUSB_HOST_CMD_OUTPUT_H
#define VIRTUSB_HOST_CMD_OUTPUT_H

#include <string>

namespace vel {

// Text made with printf's formats, of any length.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

// Writes results, at once. Throws std::runtime_error when that fails, for example on a full disk.
void Print(const std::string& text);

// One line to standard error. When nobody can read it, nobody can be told.
void Note(const std::string& line);

}  // namespace vel

#endif
