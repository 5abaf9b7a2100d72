#ifndef VIRTUSB_HOST_CMD_DESCRIBE_ENUMERATION_H
#define VIRTUSB_HOST_CMD_DESCRIBE_ENUMERATION_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "remote/ConfigModel.h"
#include "remote/RemoteDevice.h"

namespace vel {

// What a guest learns of a device when it is plugged in.
struct Enumeration {
  std::int32_t bus = 0;
  std::int32_t address = 0;
  std::int32_t port = 0;
  std::int32_t speed = 0;
  DeviceModel device;
  std::optional<ConfigModel> config;
  bool configBroken = false;  // There is one, but it cannot be read.
  // The binary object store (USB 3.2, 9.6.2) of a device that has one; at least kCapabilitiesHead bytes then.
  Bytes capabilities;
  std::map<std::uint8_t, std::string> strings;  // By index, in UTF-8.

  static constexpr std::size_t kCapabilitiesHead = 5;

  // Empty where there is none.
  std::string StringAt(std::uint8_t index) const;
  // What the configuration may draw. There is one.
  unsigned MilliAmperes() const;
};

// Opens the device and asks it everything. Throws RemoteError when it does not open or does not answer.
Enumeration Enumerate(RemoteDevice& remote);

}  // namespace vel

#endif
