#include "cmd/console/CommonOptions.h"

#include <CLI/CLI.hpp>

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

void AddFilter(CLI::App& command, std::optional<std::string>& filter, const std::string& about) {
  command
      .add_option("--auto", filter,
                  about +
                      ": rules class,vendor,product,version,allow\n"
                      "joined by |, -1 for any; the first that fits decides")
      ->type_name("FILTER");
}

}  // namespace vel
