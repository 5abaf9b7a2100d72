#include <CLI/CLI.hpp>

#include "cmd/Commands.h"

namespace vel {

void AddDevice(CLI::App& command, CommonOptions& common) {
  command.add_option("DEVICE", common.device, "A name from \"virtusb list\", BUS:ADDRESS or VID:PID")->required();
}

void AddAnyDevice(CLI::App& command, CommonOptions& common) {
  command
      .add_option(
          "DEVICE", common.device,
          "A name from \"virtusb list\", BUS:ADDRESS, VID:PID, tcp://HOST:PORT, tls://HOST:PORT or \"exec:COMMAND...\"")
      ->required();
}

void AddJson(CLI::App& command, CommonOptions& common) {
  command.add_flag("--json", common.json, "One JSON document");
}

}  // namespace vel
