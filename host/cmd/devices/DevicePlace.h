// Where on this machine's buses a device is.
#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_PLACE_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_PLACE_H

#include <string>
#include <vector>

#include "remote/ModuleSession.h"

namespace vel {

// BUS:ADDRESS, as the command line takes it.
std::string Place(const DeviceIdentity& identity);
// Place and ids, for messages.
std::string Describe(const DeviceIdentity& identity);

// Whether these are one device that has not left meanwhile.
bool AreSamePlace(const DeviceIdentity& one, const DeviceIdentity& other);
bool Contains(const std::vector<DeviceIdentity>& devices, const DeviceIdentity& device);

}  // namespace vel

#endif
