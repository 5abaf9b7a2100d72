#include <poll.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/FarDevices.h"
#include "cmd/Output.h"
#include "cmd/Signals.h"
#include "far/FarDevice.h"
#include "far/UsbipLink.h"
#include "far/Vhci.h"

namespace vel {
namespace {

// For a driver to be found; one may have to be loaded first.
constexpr std::chrono::seconds kDriverTime{10};

// One device on this machine's bus, until its connection ends or `stop` is raised.
class Attached {
 public:
  Attached(std::string name, std::unique_ptr<FarDevice> device, const Vhci& vhci, const StopSignal& stop,
           std::function<void()> onEnd)
      : mName(std::move(name)),
        mDevice(std::move(device)),
        mKernel(vhci.Attach(mDevice->Facts().KernelSpeed(), mPort)),
        mLink(mKernel.Get(), *mDevice, stop),
        mThread([this, onEnd = std::move(onEnd)] {
          mEnd = mLink.Run();
          if (mEnd == UsbipLink::End::kGuestLeft || mEnd == UsbipLink::End::kMalformed) {
            Note(mName + " was detached by this machine" + (mLink.Error().empty() ? "" : ": " + mLink.Error()));
          } else if (mEnd == UsbipLink::End::kFailed) {
            Note(mName + ": ended, " + mLink.Error());
          }
          shutdown(mKernel.Get(), SHUT_RDWR);  // The kernel unplugs it.
          onEnd();
        }) {}
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;
  ~Attached() { Join(); }

  void Join() {
    if (mThread.joinable()) {
      mThread.join();
    }
  }

  void SayDrivers(const Vhci& vhci, const StopSignal& stop) const {
    const auto bound = AwaitDrivers(vhci, mPort, kDriverTime, stop);
    if (stop.IsRaised()) {
      return;
    }
    std::string line = mName + " is on port " + std::to_string(mPort);
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
  // After Join.
  bool WasLost() const { return mEnd == UsbipLink::End::kDeviceGone; }

 private:
  const std::string mName;
  const std::unique_ptr<FarDevice> mDevice;
  unsigned mPort = 0;
  UniqueFd mKernel;
  UsbipLink mLink;
  UsbipLink::End mEnd = UsbipLink::End::kStopped;
  std::thread mThread;
};

}  // namespace

Subcommand AddAttach(CLI::App& app, CommonOptions& common) {
  const auto far = std::make_shared<FarOptions>();
  CLI::App* const line = app.add_subcommand("attach", "Put devices on this machine's own USB bus, until interrupted");
  AddFarOptions(*line, *far);
  line->footer("Takes root and the kernel's vhci-hcd. Who serves a device elsewhere does it with --answer-failures.");
  return {line, [&common, far] {
            const CaughtSignals signals;
            return RunAttach(common, *far, signals.Stop());
          }};
}

int RunAttach(const CommonOptions& common, const FarOptions& far, const StopSignal& stop) {
  const Vhci vhci;
  const StopSignal allOver;
  std::vector<std::unique_ptr<FarDevice>> devices;  // All are there before the first one is plugged in.
  for (const std::string& device : far.devices) {
    devices.push_back(OpenFarDevice(device, common, far, stop));
  }
  std::atomic<std::size_t> left{devices.size()};
  const StopSignal end;  // Ends the devices when the next one cannot be attached.
  std::vector<std::unique_ptr<Attached>> attached;
  const auto onEnd = [&left, &allOver] {
    if (--left == 0) {
      allOver.Raise();
    }
  };
  try {
    for (std::size_t i = 0; i < devices.size(); ++i) {
      attached.push_back(std::make_unique<Attached>(far.devices[i], std::move(devices[i]), vhci, end, onEnd));
    }
    for (const auto& each : attached) {
      each->SayDrivers(vhci, stop);
    }
    stop.WaitFor(allOver.Fd(), POLLIN);
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
    ThrowAllGone(far);
  }
  return 0;
}

}  // namespace vel
