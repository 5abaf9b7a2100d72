#include <CLI/CLI.hpp>
#include <memory>

#include "cmd/Commands.h"
#include "cmd/console/Output.h"
#include "cmd/console/Signals.h"
#include "cmd/describe/DescriptorText.h"
#include "cmd/devices/DeviceChannel.h"
#include "remote/RemoteDevice.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

// Throws Interrupted once `stop` is raised.
int RunDescribe(const CommonOptions& common, const StopSignal& stop) {
  RemoteDevice remote(OpenDevice(common.device, common, stop));
  const StopWatcher cutOff(stop, [&remote] { remote.Interrupt(); });
  const Enumeration found = Enumerate(remote);
  remote.Status(Command::kCloseUsbDev);
  Print(common.json ? DescriptorJson(found).dump(2) + "\n" : DescriptorText(found));
  return 0;
}

}  // namespace

Subcommand AddDescribe(CLI::App& app, CommonOptions& common) {
  CLI::App* const line =
      app.add_subcommand("describe", "Enumerate a device as a guest would and print its descriptors");
  AddAnyDevice(*line, common);
  AddJson(*line, common);
  return {line, [&common] {
            const CaughtSignals signals;
            return RunDescribe(common, signals.Stop());
          }};
}

}  // namespace vel
