// What serve, attach, export and stream have in common about what crosses: the options, and where figures are shown.
#ifndef VIRTUSB_HOST_CMD_CONSOLE_OBSERVING_H
#define VIRTUSB_HOST_CMD_CONSOLE_OBSERVING_H

#include "cmd/console/CommonOptions.h"
#include "observe/Observer.h"

namespace vel {

// --capture, --capture-bytes, --stats, and --json where the command has none.
void AddObserveOptions(CLI::App& command, CommonOptions& common);

// For an Observer: figures are lines on standard error; with --json objects on standard output, if that is free for
// them.
Observer::Options ObserverOptions(const CommonOptions& common, bool resultsAreFree);

}  // namespace vel

#endif
