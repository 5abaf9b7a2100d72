#include <CLI/CLI.hpp>
#include <stdexcept>
#include <string>

#include "cmd/Commands.h"
#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/console/UsageError.h"
#include "cmd/devices/DeviceChoice.h"
#include "cmd/devices/DeviceHold.h"
#include "cmd/devices/DevicePlace.h"

namespace vel {
namespace {

int RunGiveback(const CommonOptions& common) {
  if (!std::holds_alternative<LocalSelector>(ParseDevice(common.device))) {
    throw UsageError("\"" + common.device + "\" is an emulated device: there is nothing to give back");
  }
  const DeviceIdentity identity = FindDevice(common.device);
  const DeviceHold::Repair repair = DeviceHold(identity).PutRight(DeviceHold::Drivers::kAll);
  if (!repair.failure.empty()) {
    throw std::runtime_error(repair.failure);
  }
  std::string done;
  if (repair.configuration != 0) {
    done = Format(", configuration %d is back", repair.configuration);
  }
  for (const unsigned interface : repair.interfaces) {
    done += Format(", interface %u has its kernel driver back", interface);
  }
  Print(Describe(identity) + (done.empty() ? ", nothing had to be brought back" : done) + "\n");
  return 0;
}

}  // namespace

Subcommand AddGiveback(CLI::App& app, CommonOptions& common) {
  CLI::App* const line = app.add_subcommand(
      "giveback", "Bring back a local device's kernel drivers and configuration, after its redirection was killed");
  AddDevice(*line, common);
  return {line, [&common] { return RunGiveback(common); }};
}

}  // namespace vel
