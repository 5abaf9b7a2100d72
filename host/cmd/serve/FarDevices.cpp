#include "cmd/serve/FarDevices.h"

#include <CLI/CLI.hpp>
#include <stdexcept>
#include <utility>

#include "cmd/console/Output.h"
#include "cmd/devices/DeviceChannel.h"
#include "observe/ObservedChannel.h"
#include "remote/StopWatcher.h"

namespace vel {

std::unique_ptr<FarDevice> OpenFarDevice(const std::string& device, const CommonOptions& common,
                                         const FarOptions& wanted, Observer& observer, const StopSignal& stop,
                                         const std::function<void()>& onGone) {
  FarDevice::Options options;
  options.transcode = !wanted.untouched;
  options.stop = &stop;
  options.note = [device](const std::string& line) { Note(device + ": " + line); };
  options.onGone = onGone;
  std::unique_ptr<PacketChannel> channel = OpenDevice(device, common, stop, true);
  const std::shared_ptr<DeviceTap> tap = observer.Watch(device);
  channel = std::make_unique<ObservedChannel>(std::move(channel), tap);
  options.onLatePicture = [tap] { tap->OnLatePicture(); };
  try {
    return std::make_unique<FarDevice>(std::move(channel), std::move(options));
  } catch (const std::runtime_error& error) {
    if (stop.IsRaised()) {
      throw Interrupted();
    }
    const std::string why = error.what();
    throw std::runtime_error(why.starts_with(device) ? why : device + ": " + why);
  }
}

void ThrowAllGone(const FarOptions& wanted) {
  throw std::runtime_error(wanted.devices.size() == 1 ? "the device is gone" : "the devices are gone");
}

void AddFarOptions(CLI::App& command, FarOptions& wanted) {
  command
      .add_option(
          "DEVICE", wanted.devices,
          "Names from \"virtusb list\", BUS:ADDRESS, VID:PID, tcp://HOST:PORT, tls://HOST:PORT or \"exec:COMMAND...\"")
      ->required();
  command.add_flag("--no-transcode", wanted.untouched, "A camera's raw pictures travel as they are; without, as H.264");
}

}  // namespace vel
