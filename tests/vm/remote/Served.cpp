#include "Served.h"

#include <cstdlib>

#include "Require.h"

namespace vel::vm {
namespace {

std::string Setting(const char* name) {
  const char* value = std::getenv(name);
  Require(value != nullptr, std::string("the environment has no ") + name);
  return value;
}

}  // namespace

Served::Served(const SysDevice& device)
    : mCommand({Setting("VIRTUSB"), "--module", Setting("VIRTUSB_MODULE"), "--log", "off", "serve", device.Place(),
                "--stdio", "--answer-failures"},
               kDeadline) {}

void Served::Check(Command command) {
  RequireEqual(Remote().Status(command), 0, std::string(FindCommand(static_cast<std::uint16_t>(command))->name));
}

void Served::Take() {
  Check(Command::kOpenUsbDev);
  Check(Command::kDetachKernelDriver);
  Check(Command::kClaimAllInterface);
}

void Served::GiveBack() {
  Check(Command::kReleaseAllInterface);
  Check(Command::kAttachKernelDriver);
  Check(Command::kCloseUsbDev);
}

void Served::Done() {
  const CommandProcess::Ending ending = mCommand.Leave();
  RequireEqual(ending.status, 0, "exit status (" + ending.messages + ")");
}

ConfigModel ConfigOf(RemoteDevice& remote) {
  std::optional<ConfigModel> config = ReadConfigModel(remote.GetConfiguration());
  Require(config.has_value(), "the configuration cannot be read");
  return *std::move(config);
}

std::uint8_t EndpointOf(const ConfigModel& config, std::size_t interface, Way way, unsigned type) {
  Require(interface < config.interfaces.size(), "no interface at position " + std::to_string(interface));
  for (const AltSettingModel& setting : config.interfaces[interface]) {
    for (const EndpointModel& endpoint : setting.endpoints) {
      if ((endpoint.bmAttributes & 3U) == type && (endpoint.bEndpointAddress >= 0x80) == (way == Way::kIn)) {
        return endpoint.bEndpointAddress;
      }
    }
  }
  throw Failure("interface " + std::to_string(interface) + " has no such endpoint");
}

}  // namespace vel::vm
