#include <CLI/CLI.hpp>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/console/Observing.h"
#include "cmd/console/Output.h"
#include "cmd/console/Signals.h"
#include "cmd/devices/DeviceChannel.h"
#include "cmd/serve/AttachedDevice.h"
#include "cmd/serve/FarDevices.h"
#include "cmd/serve/Retry.h"
#include "far/FarDevice.h"
#include "far/Vhci.h"

namespace vel {
namespace {

struct AttachOptions : FarOptions {
  // How often a device elsewhere is tried again when it is not there. Unset: at the start never, and without end once
  // it was.
  std::optional<unsigned> tries;
};

// For a driver to be found; one may have to be loaded first.
constexpr std::chrono::seconds kDriverTime{10};

void SayDrivers(const AttachedDevice& device, const Vhci& vhci, const StopSignal& stop) {
  const unsigned port = device.Port();
  const auto bound = AwaitDrivers(vhci, port, kDriverTime, stop);
  if (stop.IsRaised()) {
    return;
  }
  std::string line = device.Name() + " is on port " + std::to_string(port);
  if (!bound) {
    Note(line + ", but this machine does not bring it up");
    return;
  }
  line += " as " + bound->name + ":";
  for (const std::string& driver : bound->drivers) {
    line += " " + (driver == "-" ? "no driver" : driver);
  }
  Note(line);
}

// A device of this machine that was pulled out is another one when it comes back.
std::optional<Retry> RetryOf(const std::string& device, std::optional<unsigned> tries) {
  return IsRemoteDevice(device) ? std::optional<Retry>(std::in_place, tries, Retry::Pauses{}) : std::nullopt;
}

// Puts devices on this machine's bus until `stop` is raised or none is left.
int RunAttach(const CommonOptions& common, const AttachOptions& wanted, const StopSignal& stop) {
  const Vhci vhci;
  const StopSignal allOver;
  const StopSignal end;  // Ends the devices: stopped, or the next one cannot be attached.
  Observer observer(ObserverOptions(common, true));
  std::atomic<std::size_t> left{wanted.devices.size()};
  const auto waysOf = [&](const std::string& name) {
    return AttachedDevice::Ways{
        .open = [&, name](const StopSignal& until) { return OpenFarDevice(name, common, wanted, observer, until); },
        .plug = [&vhci](std::uint32_t speed, unsigned& port) { return vhci.Attach(speed, port); },
        .unplug = [&vhci, &end](const UniqueFd& connection, unsigned port) { vhci.Unplug(connection, port, end); },
        .retry = [&wanted, name] { return RetryOf(name, wanted.tries); },
        .note = &Note,
        .onEnd =
            [&left, &allOver] {
              if (--left == 0) {
                allOver.Raise();
              }
            }};
  };
  std::vector<std::unique_ptr<FarDevice>> devices;  // All are there before the first one is plugged in.
  for (const std::string& name : wanted.devices) {
    std::optional<Retry> retry = wanted.tries ? RetryOf(name, wanted.tries) : std::nullopt;
    devices.push_back(
        AttachedDevice::Reach(waysOf(name), retry, stop, [](const std::string& why) { Note(why + "; trying again"); }));
  }
  std::vector<std::unique_ptr<AttachedDevice>> attached;
  try {
    for (std::size_t i = 0; i < devices.size(); ++i) {
      const std::string& name = wanted.devices[i];
      attached.push_back(std::make_unique<AttachedDevice>(name, std::move(devices[i]), waysOf(name), end));
    }
    for (const auto& each : attached) {
      SayDrivers(*each, vhci, stop);
    }
    stop.WaitFor(allOver.Fd(), kReadable);
  } catch (...) {
    end.Raise();
    throw;
  }
  end.Raise();
  const bool interrupted = stop.IsRaised();
  bool lost = false;
  while (!attached.empty()) {
    attached.back()->Join();
    lost = lost || attached.back()->WasLost();
    attached.pop_back();
  }
  if (lost && !interrupted) {
    ThrowAllGone(wanted);
  }
  return 0;
}

}  // namespace

Subcommand AddAttach(CLI::App& app, CommonOptions& common) {
  const auto wanted = std::make_shared<AttachOptions>();
  CLI::App* const line = app.add_subcommand("attach", "Put devices on this machine's own USB bus, until interrupted");
  AddFarOptions(*line, *wanted);
  line->add_option("--tries", wanted->tries,
                   "How often a device elsewhere is tried again, after 1, 2, 4 to 30 seconds, when it is not there at\n"
                   "the start and each time it is lost. Without: at the start never, then until interrupted");
  AddObserveOptions(*line, common);
  line->footer("Takes root and the kernel's vhci-hcd. Who serves a device elsewhere does it with --answer-failures.");
  return {line, [&common, wanted] {
            const CaughtSignals signals;
            return RunAttach(common, *wanted, signals.Stop());
          }};
}

}  // namespace vel
