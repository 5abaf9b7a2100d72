#ifndef VIRTUSB_HOST_CMD_DEVICES_COMMAND_WORDS_H
#define VIRTUSB_HOST_CMD_DEVICES_COMMAND_WORDS_H

#include <string>
#include <vector>

namespace vel {

// The words of exec:COMMAND, split as this system's own commands are: as a shell does it, quotes, variables and ~
// included; on Windows as programs do it, with quotes and %variables%. No shell runs it: its process is the one that is
// waited for, and nothing in a name can become a command of its own. Throws UsageError.
std::vector<std::string> SplitCommand(const std::string& command);

inline constexpr char kNoCommand[] = "exec: names no command: give exec:COMMAND..., quoted as one argument";

}  // namespace vel

#endif
