#ifndef VIRTUSB_HOST_CMD_ENUMERATION_H
#define VIRTUSB_HOST_CMD_ENUMERATION_H

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
  std::map<std::uint8_t, std::string> strings;  // By index, in UTF-8.
};

// Opens the device and asks it everything. Throws RemoteError when it does not open or does not answer.
Enumeration Enumerate(RemoteDevice& remote);

}  // namespace vel

#endif
