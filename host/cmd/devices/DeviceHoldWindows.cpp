#include <stdexcept>

#include "cmd/console/Format.h"
#include "cmd/devices/DeviceHold.h"
#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/LocalDevices.h"
#include "cmd/devices/SystemDevices.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace vel {
namespace {

struct HandleCloser {
  void operator()(void* handle) const { CloseHandle(handle); }
};

}  // namespace

// Whoever holds a device has made a name for it, which goes with the process.
struct DeviceHold::State {
  std::unique_ptr<void, HandleCloser> name;
};

DeviceHold::DeviceHold(const DeviceIdentity& identity) : mState(std::make_unique<State>()) {
  const std::string name = Format("Global\\virtusb-%03u-%03u", unsigned{identity.bus}, unsigned{identity.address});
  mState->name.reset(CreateMutexA(nullptr, FALSE, name.c_str()));
  if (mState->name == nullptr || GetLastError() == ERROR_ALREADY_EXISTS) {
    throw std::runtime_error(Describe(identity) + " is already redirected by another process");
  }
  if (const int error = OpeningLeavesDevicesAlone() ? TryToOpen(identity) : 0; error != 0) {
    throw std::runtime_error(Describe(identity) + " " + WhyNotOpened(error));
  }
}

DeviceHold::~DeviceHold() = default;

// Windows gives a device back to its driver when nobody has it open any more.
DeviceHold::Repair DeviceHold::PutRight(Drivers /*drivers*/) {
  return {};
}

std::string DeviceHold::OtherProgram() const {
  return "";  // Then it could not have been opened.
}

}  // namespace vel
