#include "cmd/DeviceHold.h"

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

#include "cmd/Devices.h"
#include "cmd/Output.h"

namespace vel {
namespace {

constexpr std::uint8_t kLastLocalAddress = 0x7F;
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

DeviceHold::DeviceHold(const DeviceIdentity& identity)
    : mIdentity(identity), mNode(identity), mRecord(RecordPath(identity)) {
  if (!ReadRecord()) {
    mFound = Look();
    WriteRecord();
  }
}

DeviceHold::~DeviceHold() {
  if (const Repair repair = PutRight(); !repair.failure.empty()) {
    Note(repair.failure);
  }
  std::error_code ignored;
  std::filesystem::remove(mRecord, ignored);
}

DeviceHold::State DeviceHold::Look() const {
  State state;
  state.configuration = ActiveConfiguration(mIdentity).value_or(0);
  for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
    const std::string driver = mNode.Driver(interface);
    if (!driver.empty() && driver != kProgramsDriver) {
      state.drivers |= 1UL << interface;
    }
  }
  return state;
}

// In a record: vendor and product, which tell that the place has another device by now, configuration, drivers.

bool DeviceHold::ReadRecord() {
  std::ifstream file(mRecord);
  unsigned vendor = 0;
  unsigned product = 0;
  return file >> vendor >> product >> mFound.configuration >> mFound.drivers && vendor == mIdentity.vendorId &&
         product == mIdentity.productId;
}

void DeviceHold::WriteRecord() const {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(mRecord).parent_path(), ignored);
  std::ofstream(mRecord) << mIdentity.vendorId << ' ' << mIdentity.productId << ' ' << mFound.configuration << ' '
                         << mFound.drivers << '\n';
}

DeviceHold::Repair DeviceHold::PutRight(Drivers drivers) {
  Repair repair;
  const auto fail = [&](const std::string& what, int error) {
    if (error != 0 && error != ENODEV && repair.failure.empty()) {
      repair.failure = Describe(mIdentity) + ": " + what + ": " + std::strerror(error) +
                       " (plug the device in again, and it is as it was)";
    }
    return error == 0;
  };
  const std::optional<int> now = ActiveConfiguration(mIdentity);
  if (!now) {
    return repair;
  }
  if (mFound.configuration > 0 && *now != mFound.configuration) {
    for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
      mNode.Detach(interface);  // The kernel changes no configuration that is in use.
    }
    if (fail(Format("configuration %d does not come back", mFound.configuration),
             mNode.SetConfiguration(mFound.configuration))) {
      repair.configuration = mFound.configuration;
    }
  }
  for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
    const bool wanted = drivers == Drivers::kAll || (mFound.drivers & (1UL << interface)) != 0;
    if (wanted && mNode.Driver(interface).empty()) {
      fail(Format("the kernel's driver of interface %u does not come back", interface), mNode.Attach(interface));
      if (!mNode.Driver(interface).empty()) {
        repair.interfaces.push_back(interface);
      }
    }
  }
  return repair;
}

std::string DeviceHold::OtherProgram() const {
  for (unsigned interface = 0; interface < DeviceNode::kMaxInterfaces; ++interface) {
    if (mNode.Driver(interface) == kProgramsDriver) {
      return mNode.OtherUser().value_or("another program");
    }
  }
  return "";
}

std::unique_ptr<DeviceHold> HoldIfLocal(const DeviceIdentity& identity) {
  return identity.address > kLastLocalAddress ? nullptr : std::make_unique<DeviceHold>(identity);
}

}  // namespace vel
