// What this system has of USB devices beside libusb.
#ifndef VIRTUSB_HOST_CMD_DEVICES_SYSTEM_DEVICES_H
#define VIRTUSB_HOST_CMD_DEVICES_SYSTEM_DEVICES_H

#include <libusb-1.0/libusb.h>

#include <cstdint>
#include <string>

namespace vel {

// Why devices have to be looked for, for people; null where somebody tells of them.
const char* WhyNobodyTellsOfDevices();
// Whether a bus is another machine's, by USB/IP.
bool IsImported(std::uint8_t bus);
// Makes a new context see the devices as the module sees them, with the same places.
void TakeSystemBackend(libusb_context* context);
// Whether a device that is opened stays with its driver, as far as that is another's.
bool OpeningLeavesDevicesAlone();
// Why a device cannot be opened and what to do, for people, by libusb's error.
std::string WhyNotOpened(int error);

}  // namespace vel

#endif
