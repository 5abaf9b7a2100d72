#include <CLI/CLI.hpp>
#include <cstddef>

#include "cmd/Commands.h"
#include "cmd/console/UsageError.h"

namespace vel {
namespace {

// A command that is for another system: says so as soon as it is read, whatever follows it.
Subcommand AddElsewhere(CLI::App& app, const char* name, const char* about, const char* instead) {
  CLI::App* const line = app.add_subcommand(name, about);
  const auto say = [instead]() -> int { throw UsageError(instead); };
  line->preparse_callback([say](std::size_t) { say(); });
  return {line, say};
}

}  // namespace

Subcommand AddAttach(CLI::App& app, CommonOptions& /*common*/) {
  return AddElsewhere(app, "attach", "Only in Linux guests: put devices on their own USB bus",
                      "attach is for Linux guests: run \"virtusb serve DEVICE --listen ADDR:PORT\" here and "
                      "\"virtusb attach tcp://ADDR:PORT\" there");
}

Subcommand AddGiveback(CLI::App& app, CommonOptions& /*common*/) {
  return AddElsewhere(app, "giveback", "Only on Linux: bring back a local device's kernel drivers",
                      "giveback is for Linux: Windows gives a device back by itself when the program that had it ends");
}

}  // namespace vel
