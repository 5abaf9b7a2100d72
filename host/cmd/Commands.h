// What the command line is made of.
#ifndef VIRTUSB_HOST_CMD_COMMANDS_H
#define VIRTUSB_HOST_CMD_COMMANDS_H

#include <functional>

#include "cmd/console/CommonOptions.h"

namespace CLI {
class App;
}  // namespace CLI

namespace vel {

// A command of the command line, and what runs it once the line was parsed.
struct Subcommand {
  CLI::App* line = nullptr;
  // Returns the exit status. Results go to standard output, everything else to standard error. Throws UsageError or
  // another std::exception, whose text is the one line that the user gets.
  std::function<int()> run;
};

// Each puts the command and its options into the command line. `app` and `common` outlive what they return.
Subcommand AddList(CLI::App& app, CommonOptions& common);
Subcommand AddDescribe(CLI::App& app, CommonOptions& common);
Subcommand AddStream(CLI::App& app, CommonOptions& common);
Subcommand AddServe(CLI::App& app, CommonOptions& common);
Subcommand AddGiveback(CLI::App& app, CommonOptions& common);
Subcommand AddAttach(CLI::App& app, CommonOptions& common);
Subcommand AddExport(CLI::App& app, CommonOptions& common);
Subcommand AddDemo(CLI::App& app, CommonOptions& common);

}  // namespace vel

#endif
