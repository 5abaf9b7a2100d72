#include <CLI/CLI.hpp>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "cmd/Commands.h"
#include "cmd/console/Observing.h"
#include "cmd/console/Output.h"
#include "cmd/console/Signals.h"
#include "cmd/console/UsageError.h"
#include "cmd/devices/DeviceFilter.h"
#include "cmd/serve/AutoExport.h"
#include "cmd/serve/FarDevices.h"
#include "cmd/serve/Listener.h"
#include "far/UsbipServer.h"
#include "remote/ModuleLibrary.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

struct ExportOptions : FarOptions {
  std::string listen = "3240";  // ADDR:PORT, :PORT or PORT
  bool insecure = false;        // Also where other machines reach it.
  // Of the local devices that are exported as they come and go. With it `devices` may be empty.
  std::optional<std::string> filter;
};

constexpr char kOpenToAll[] =
    "USB/IP has no encryption: listen on a PORT alone and let guests come by \"ssh -L 3240:localhost:PORT HOST\", or "
    "give --insecure where everybody there may have the devices";

// Gives devices to guests' own clients until `stop` is raised or, without a filter, none is left.
int RunExport(const CommonOptions& common, const ExportOptions& wanted, const StopSignal& stop) {
  if (wanted.devices.empty() && !wanted.filter) {
    throw UsageError("no DEVICE is given, and no --auto FILTER (see virtusb export --help)");
  }
  std::optional<DeviceFilter> filter;
  std::shared_ptr<ModuleLibrary> library;  // Stays loaded while no device is there.
  if (wanted.filter) {
    filter.emplace(*wanted.filter);
    library = ModuleLibrary::Load(common.modulePath);
  }
  const StopSignal end;  // Stopped, or the last device is gone and no other can come.
  const StopWatcher watcher(stop, [&end] { end.Raise(); });
  const Listener listener(wanted.listen, end, wanted.insecure ? nullptr : kOpenToAll);
  std::atomic<std::size_t> left{wanted.devices.size()};
  const auto onGone = [&left, &end, &filter] {
    if (--left == 0 && !filter) {
      end.Raise();
    }
  };
  Observer observer(ObserverOptions(common, true));
  UsbipServer server(end, &Note);
  std::uint32_t number = 0;
  for (const std::string& device : wanted.devices) {
    Note(device + " is " + server.Add(++number, device, OpenFarDevice(device, common, wanted, observer, stop, onGone)));
  }
  std::optional<AutoExport> others;
  if (filter) {
    others.emplace(*filter, wanted.devices, server,
                   [&](const std::string& device) { return OpenFarDevice(device, common, wanted, observer, stop); });
  }
  Note("serving " + (filter ? "devices as they come and go" : std::to_string(wanted.devices.size()) + " devices") +
       " by USB/IP on " + listener.Name() + "; interrupt to end");
  while (true) {
    std::string peer;
    UniqueFd connection = listener.Accept(peer);
    if (!connection.IsValid() && stop.IsRaised()) {
      return 0;
    }
    if (!connection.IsValid()) {
      ThrowAllGone(wanted);
    }
    server.Serve(std::move(connection), peer);
  }
}

}  // namespace

Subcommand AddExport(CLI::App& app, CommonOptions& common) {
  const auto wanted = std::make_shared<ExportOptions>();
  CLI::App* const line =
      app.add_subcommand("export", "Give devices to guests that use their own USB/IP client, until interrupted");
  AddFarOptions(*line, *wanted);
  line->get_option("DEVICE")->required(false);  // With --auto.
  AddFilter(*line, wanted->filter, "Also every local device that this allows, as it comes and goes");
  AddObserveOptions(*line, common);
  line->add_option("--listen", wanted->listen, "On ADDR:PORT, or on PORT of the loopback address")
      ->type_name("[ADDR:]PORT")
      ->capture_default_str();
  line->add_flag("--insecure", wanted->insecure, "Also where other machines reach it: anybody, unencrypted");
  line->footer(
      "A guest takes one with: usbip attach -r HOST -b BUSID. Nothing is encrypted, nobody is asked who he is.");
  return {line, [&common, wanted] {
            const CaughtSignals signals;
            return RunExport(common, *wanted, signals.Stop());
          }};
}

}  // namespace vel
