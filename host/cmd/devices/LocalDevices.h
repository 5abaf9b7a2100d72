#ifndef VIRTUSB_HOST_CMD_DEVICES_LOCAL_DEVICES_H
#define VIRTUSB_HOST_CMD_DEVICES_LOCAL_DEVICES_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "remote/ModuleSession.h"

namespace vel {

// What a device or an interface says it is.
struct UsbClass {
  std::uint8_t code = 0;
  std::uint8_t subclass = 0;
  std::uint8_t protocol = 0;
};

// A device that is plugged into this machine.
struct LocalDevice {
  struct Interface {
    std::uint8_t number = 0;
    UsbClass usbClass;  // Of its first setting.
  };

  DeviceIdentity identity;
  std::string port;           // Bus and the ports on the way, as in "1-4.2": stays the same when the device returns.
  std::uint16_t version = 0;  // bcdDevice
  UsbClass usbClass;
  std::vector<Interface> interfaces;  // Of the active configuration, of the first one when none is; in order.
  bool imported = false;              // Another machine's, by USB/IP.
  int speed = 0;                      // enum libusb_speed
  int openError = 0;                  // LIBUSB_ERROR_ACCESS where this user may not open it; 0 where it was not tried.
  std::string manufacturer;           // As far as the device can be opened.
  std::string product;
};

// All but hubs, in the order of bus and address, from what the kernel knows of them: openError and the texts stay
// empty. Throws std::runtime_error when the machine's USB cannot be looked at.
std::vector<LocalDevice> PluggedDevices();
// The same, and opens each device for a moment for the rest.
std::vector<LocalDevice> LocalDevices();

// Which local device is meant: a place, or ids that may turn up at any place.
struct LocalSelector {
  std::optional<std::uint8_t> bus;
  std::optional<std::uint8_t> address;
  std::optional<std::uint16_t> vendorId;
  std::optional<std::uint16_t> productId;

  bool Matches(const DeviceIdentity& identity) const;
};

// Where such devices are now, in the order of bus and address; no hubs. Throws std::runtime_error when the machine's
// USB cannot be looked at.
std::vector<DeviceIdentity> FindLocalDevices(const LocalSelector& selector);
// Where this device is now; nothing when it is not there. Throws std::runtime_error, with a text for people, when it is
// a hub, or several devices are meant.
std::optional<DeviceIdentity> FindLocalDevice(const LocalSelector& selector);

// libusb's error when the device is opened for a moment, 0 when there is none.
int TryToOpen(const DeviceIdentity& identity);

// The value of its configuration, 0 when it has none; nothing when it is not there.
std::optional<int> ActiveConfiguration(const DeviceIdentity& identity);

}  // namespace vel

#endif
