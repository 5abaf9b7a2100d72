#include "Served.h"

#include <libusb-1.0/libusb.h>

#include <cstdlib>

namespace vel::vm {
namespace {

std::string Setting(const char* name) {
  const char* value = std::getenv(name);
  Require(value != nullptr, std::string("the environment has no ") + name);
  return value;
}

}  // namespace

void Require(bool holds, const std::string& otherwise) {
  if (!holds) {
    throw Failure(otherwise);
  }
}

void RequireEqual(long long actual, long long expected, const std::string& what) {
  Require(actual == expected, what + ": " + std::to_string(actual) + " instead of " + std::to_string(expected));
}

void RequireWhole(const TransferReply& reply, std::size_t size) {
  RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
  RequireEqual(static_cast<long long>(reply.data.size()), static_cast<long long>(size), "bytes");
}

Served::Served(const std::string& place)
    : mCommand({Setting("VIRTUSB"), "--module", Setting("VIRTUSB_MODULE"), "--log", "off", "serve", place, "--stdio",
                "--answer-failures"},
               kLimit) {}

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

std::uint8_t Served::Endpoint(std::size_t interface, Way way, unsigned type) {
  const std::optional<ConfigModel> config = ReadConfigModel(Remote().GetConfiguration());
  Require(config.has_value() && interface < config->interfaces.size(), "the configuration cannot be read");
  for (const AltSettingModel& setting : config->interfaces[interface]) {
    for (const EndpointModel& endpoint : setting.endpoints) {
      if ((endpoint.bmAttributes & 3U) == type && (endpoint.bEndpointAddress >= 0x80) == (way == Way::kIn)) {
        return endpoint.bEndpointAddress;
      }
    }
  }
  throw Failure("interface " + std::to_string(interface) + " has no such endpoint");
}

}  // namespace vel::vm
