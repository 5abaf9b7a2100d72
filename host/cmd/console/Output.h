// What the command writes: results to standard output, everything else to standard error.
#ifndef VIRTUSB_HOST_CMD_CONSOLE_OUTPUT_H
#define VIRTUSB_HOST_CMD_CONSOLE_OUTPUT_H

#include <string>

namespace vel {

// Writes results, at once. Throws std::runtime_error when that fails, for example on a full disk.
void Print(const std::string& text);

// From here on results go to standard output as it was, and whatever else this process prints there goes to
// `descriptor`, each print in one write. Throws std::system_error when there is no standard output. Before any thread
// prints.
void DivertStandardOutput(int descriptor);
// The end of that. Harmless without it.
void RestoreStandardOutput();
// Where results go.
int ResultsDescriptor();

// One line to standard error. When nobody can read it, nobody can be told.
void Note(const std::string& line);

}  // namespace vel

#endif
