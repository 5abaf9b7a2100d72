#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>

#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/devices/DeviceHold.h"
#include "cmd/devices/DeviceNode.h"
#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/LocalDevices.h"

namespace vel {
namespace {

constexpr std::string_view kProgramsDriver = "usbfs";

// Below a folder that is this user's own and does not outlive a boot.
std::string RecordPath(const DeviceIdentity& identity) {
  const char* const named = std::getenv("VIRTUSB_STATE_DIR");
  const char* const users = geteuid() == 0 ? "/run" : std::getenv("XDG_RUNTIME_DIR");
  if (named == nullptr && users == nullptr) {
    return "";
  }
  return (named != nullptr ? std::string(named) : std::string(users) + "/virtusb") +
         Format("/%03u-%03u", unsigned{identity.bus}, unsigned{identity.address});
}

}  // namespace

struct DeviceHold::State {
  struct Had {
    int configuration = 0;      // 0: unknown, and never set.
    unsigned long drivers = 0;  // Bit n: interface n had one.
  };

  explicit State(const DeviceIdentity& of) : identity(of), node(of), record(RecordPath(of)) {}

  void Look();
  // From a redirection that was killed.
  bool ReadRecord();
  void WriteRecord() const;

  const DeviceIdentity identity;
  const DeviceNode node;
  const std::string record;  // Path; empty where there is no place for it.
  Had found;
};

DeviceHold::DeviceHold(const DeviceIdentity& identity) : mState(std::make_unique<State>(identity)) {
  if (!mState->ReadRecord()) {
    mState->Look();
    mState->WriteRecord();
  }
}

DeviceHold::~DeviceHold() {
  if (const Repair repair = PutRight(); !repair.failure.empty()) {
    Note(repair.failure);
  }
  std::error_code ignored;
  std::filesystem::remove(mState->record, ignored);
}

void DeviceHold::State::Look() {
  found.configuration = ActiveConfiguration(identity).value_or(0);
  for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
    const std::string driver = node.Driver(interface);
    if (!driver.empty() && driver != kProgramsDriver) {
      found.drivers |= 1UL << interface;
    }
  }
}

// In a record: vendor and product, which tell that the place has another device by now, configuration, drivers.

bool DeviceHold::State::ReadRecord() {
  std::ifstream file(record);
  unsigned vendor = 0;
  unsigned product = 0;
  return file >> vendor >> product >> found.configuration >> found.drivers && vendor == identity.vendorId &&
         product == identity.productId;
}

void DeviceHold::State::WriteRecord() const {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(record).parent_path(), ignored);
  std::ofstream(record) << identity.vendorId << ' ' << identity.productId << ' ' << found.configuration << ' '
                        << found.drivers << '\n';
}

DeviceHold::Repair DeviceHold::PutRight(Drivers drivers) {
  Repair repair;
  const auto fail = [&](const std::string& what, int error) {
    if (error != 0 && error != ENODEV && repair.failure.empty()) {
      repair.failure = Describe(mState->identity) + ": " + what + ": " + std::strerror(error) +
                       " (plug the device in again, and it is as it was)";
    }
    return error == 0;
  };
  const std::optional<int> now = ActiveConfiguration(mState->identity);
  if (!now) {
    return repair;
  }
  if (mState->found.configuration > 0 && *now != mState->found.configuration) {
    for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
      mState->node.Detach(interface);  // The kernel changes no configuration that is in use.
    }
    if (fail(Format("configuration %d does not come back", mState->found.configuration),
             mState->node.SetConfiguration(mState->found.configuration))) {
      repair.configuration = mState->found.configuration;
    }
  }
  for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
    const bool wanted = drivers == Drivers::kAll || (mState->found.drivers & (1UL << interface)) != 0;
    if (wanted && mState->node.Driver(interface).empty()) {
      fail(Format("the kernel's driver of interface %u does not come back", interface), mState->node.Attach(interface));
      if (!mState->node.Driver(interface).empty()) {
        repair.interfaces.push_back(interface);
      }
    }
  }
  return repair;
}

std::string DeviceHold::OtherProgram() const {
  for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
    if (mState->node.Driver(interface) == kProgramsDriver) {
      return mState->node.OtherUser().value_or("another program");
    }
  }
  return "";
}

}  // namespace vel
