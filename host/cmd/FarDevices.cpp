#include "cmd/FarDevices.h"

#include <CLI/CLI.hpp>
#include <atomic>
#include <stdexcept>
#include <utility>

#include "cmd/DeviceChannel.h"
#include "cmd/Output.h"
#include "remote/StopWatcher.h"

namespace vel {

namespace {

// Tells once that a device is gone: after each of its notes it is asked.
struct GoneTeller {
  explicit GoneTeller(std::function<void()> call) : onGone(std::move(call)) {}

  void Look() {
    const FarDevice* const there = device;
    if (there != nullptr && there->IsGone() && !told.exchange(true) && onGone) {
      onGone();
    }
  }

  const std::function<void()> onGone;
  std::atomic<const FarDevice*> device{nullptr};
  std::atomic<bool> told{false};
};

}  // namespace

std::unique_ptr<FarDevice> OpenFarDevice(const std::string& device, const CommonOptions& common, const FarOptions& far,
                                         const StopSignal& stop, const std::function<void()>& onGone) {
  const auto teller = std::make_shared<GoneTeller>(onGone);
  FarDevice::Options options;
  options.transcode = !far.untouched;
  options.stop = &stop;
  options.note = [device, teller](const std::string& line) {
    Note(device + ": " + line);
    teller->Look();
  };
  std::unique_ptr<PacketChannel> channel = OpenDevice(device, common, stop, true);
  try {
    auto opened = std::make_unique<FarDevice>(std::move(channel), std::move(options));
    teller->device = opened.get();
    teller->Look();  // It may have gone before.
    return opened;
  } catch (const std::runtime_error& error) {
    if (stop.IsRaised()) {
      throw Interrupted();
    }
    throw std::runtime_error(device + ": " + error.what());
  }
}

void ThrowAllGone(const FarOptions& far) {
  throw std::runtime_error(far.devices.size() == 1 ? "the device is gone" : "the devices are gone");
}

void AddFarOptions(CLI::App& command, FarOptions& far) {
  command
      .add_option("DEVICE", far.devices,
                  "Names from \"virtusb list\", BUS:ADDRESS, VID:PID, tcp://HOST:PORT or \"exec:COMMAND...\"")
      ->required();
  command.add_flag("--no-transcode", far.untouched, "A camera's raw pictures travel as they are; without, as H.264");
}

}  // namespace vel
