#include "cmd/devices/LocalDevices.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <stdexcept>
#include <utility>

#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/SystemDevices.h"
#include "cmd/devices/UsbContext.h"

namespace vel {
namespace {

struct DeviceListDeleter {
  void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
struct ConfigDeleter {
  void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};
struct HandleDeleter {
  void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};

// Calls visit(device, descriptor) for each device and hub.
template <class Visit>
void ForEachDevice(Visit visit) {
  const UsbContext context = NewUsbContext();
  libusb_device** rawList = nullptr;
  const auto count = libusb_get_device_list(context.get(), &rawList);
  if (count < 0) {
    throw std::runtime_error(std::string("cannot list USB devices: ") + libusb_strerror(static_cast<int>(count)));
  }
  const std::unique_ptr<libusb_device*, DeviceListDeleter> list(rawList);
  for (libusb_device* device : std::span(list.get(), static_cast<std::size_t>(count))) {
    libusb_device_descriptor desc{};
    if (libusb_get_device_descriptor(device, &desc) == 0) {  // Otherwise it is going away.
      visit(device, desc);
    }
  }
}

// What the device calls itself, printable ASCII only: the device wrote it, and it goes to a terminal.
std::string ReadText(libusb_device_handle* handle, std::uint8_t index) {
  std::array<unsigned char, 256> text{};
  const int length = index == 0 ? 0 : libusb_get_string_descriptor_ascii(handle, index, text.data(), text.size());
  std::string printable;
  for (int i = 0; i < length; ++i) {
    const unsigned char byte = text[static_cast<std::size_t>(i)];
    printable += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '?';
  }
  return printable;
}

std::vector<LocalDevice::Interface> InterfacesOf(libusb_device* device) {
  std::vector<LocalDevice::Interface> interfaces;
  libusb_config_descriptor* raw = nullptr;
  if (libusb_get_active_config_descriptor(device, &raw) == 0 || libusb_get_config_descriptor(device, 0, &raw) == 0) {
    const std::unique_ptr<libusb_config_descriptor, ConfigDeleter> config(raw);
    for (const libusb_interface& interface : std::span(config->interface, config->bNumInterfaces)) {
      if (interface.num_altsetting > 0) {
        const libusb_interface_descriptor& first = interface.altsetting[0];
        interfaces.push_back({.number = first.bInterfaceNumber,
                              .usbClass = {.code = first.bInterfaceClass,
                                           .subclass = first.bInterfaceSubClass,
                                           .protocol = first.bInterfaceProtocol}});
      }
    }
  }
  return interfaces;
}

std::string PortOf(libusb_device* device, const DeviceIdentity& identity) {
  std::array<std::uint8_t, 7> ports{};  // USB 3.2, 10.1: there are at most five hubs on the way.
  const int count = libusb_get_port_numbers(device, ports.data(), static_cast<int>(ports.size()));
  if (count <= 0) {
    return Place(identity);  // Not known.
  }
  std::string path = std::to_string(identity.bus);
  for (int i = 0; i < count; ++i) {
    path += (i == 0 ? "-" : ".") + std::to_string(ports.at(static_cast<std::size_t>(i)));
  }
  return path;
}

LocalDevice LookAt(libusb_device* device, const libusb_device_descriptor& desc) {
  LocalDevice local;
  local.identity = IdentityOf(device, desc);
  local.port = PortOf(device, local.identity);
  local.version = desc.bcdDevice;
  local.usbClass = {.code = desc.bDeviceClass, .subclass = desc.bDeviceSubClass, .protocol = desc.bDeviceProtocol};
  local.interfaces = InterfacesOf(device);
  local.imported = IsImported(local.identity.bus);
  local.speed = libusb_get_device_speed(device);
  return local;
}

void Open(libusb_device* device, const libusb_device_descriptor& desc, LocalDevice& local) {
  if (!OpeningLeavesDevicesAlone()) {
    return;
  }
  libusb_device_handle* raw = nullptr;
  local.openError = libusb_open(device, &raw);
  if (local.openError == 0) {
    const std::unique_ptr<libusb_device_handle, HandleDeleter> handle(raw);
    local.manufacturer = ReadText(handle.get(), desc.iManufacturer);
    local.product = ReadText(handle.get(), desc.iProduct);
  }
}

bool IsBefore(const DeviceIdentity& one, const DeviceIdentity& other) {
  return std::pair(one.bus, one.address) < std::pair(other.bus, other.address);
}

template <class T>
bool IsWanted(const std::optional<T>& wanted, T value) {
  return !wanted || *wanted == value;
}

std::vector<LocalDevice> AllButHubs(bool opened) {
  std::vector<LocalDevice> devices;
  ForEachDevice([&](libusb_device* device, const libusb_device_descriptor& desc) {
    if (!IsHub(desc)) {
      devices.push_back(LookAt(device, desc));
      if (opened) {
        Open(device, desc, devices.back());
      }
    }
  });
  std::ranges::sort(devices, &IsBefore, &LocalDevice::identity);
  return devices;
}

}  // namespace

std::vector<LocalDevice> PluggedDevices() {
  return AllButHubs(false);
}

std::vector<LocalDevice> LocalDevices() {
  return AllButHubs(true);
}

bool LocalSelector::Matches(const DeviceIdentity& identity) const {
  return IsWanted(bus, identity.bus) && IsWanted(address, identity.address) && IsWanted(vendorId, identity.vendorId) &&
         IsWanted(productId, identity.productId);
}

std::vector<DeviceIdentity> FindLocalDevices(const LocalSelector& selector) {
  std::vector<DeviceIdentity> found;
  ForEachDevice([&](libusb_device* device, const libusb_device_descriptor& desc) {
    const DeviceIdentity identity = IdentityOf(device, desc);
    if (!IsHub(desc) && selector.Matches(identity)) {
      found.push_back(identity);
    }
  });
  std::ranges::sort(found, &IsBefore);
  return found;
}

std::optional<DeviceIdentity> FindLocalDevice(const LocalSelector& selector) {
  const std::vector<DeviceIdentity> found = FindLocalDevices(selector);
  if (found.size() > 1) {
    std::string places;
    for (const DeviceIdentity& identity : found) {
      places += (places.empty() ? "" : ", ") + Place(identity);
    }
    throw std::runtime_error("several devices are meant: give one by its place, as BUS:ADDRESS: " + places);
  }
  if (!found.empty()) {
    return found.front();
  }
  ForEachDevice([&](libusb_device* device, const libusb_device_descriptor& desc) {
    if (IsHub(desc) && selector.Matches(IdentityOf(device, desc))) {
      throw std::runtime_error(Place(IdentityOf(device, desc)) +
                               " is a hub, and hubs are not redirected: name a device that is plugged into it");
    }
  });
  return std::nullopt;
}

int TryToOpen(const DeviceIdentity& wanted) {
  int error = LIBUSB_ERROR_NO_DEVICE;
  ForEachDevice([&](libusb_device* device, const libusb_device_descriptor& desc) {
    if (AreSamePlace(IdentityOf(device, desc), wanted)) {
      libusb_device_handle* handle = nullptr;
      error = libusb_open(device, &handle);
      const std::unique_ptr<libusb_device_handle, HandleDeleter> closed(error == 0 ? handle : nullptr);
    }
  });
  return error;
}

std::optional<int> ActiveConfiguration(const DeviceIdentity& wanted) {
  std::optional<int> value;
  ForEachDevice([&](libusb_device* device, const libusb_device_descriptor& desc) {
    const DeviceIdentity identity = IdentityOf(device, desc);
    if (AreSamePlace(identity, wanted)) {
      libusb_config_descriptor* raw = nullptr;
      const int result = libusb_get_active_config_descriptor(device, &raw);
      const std::unique_ptr<libusb_config_descriptor, ConfigDeleter> config(result == 0 ? raw : nullptr);
      value = config == nullptr ? 0 : config->bConfigurationValue;
    }
  });
  return value;
}

}  // namespace vel
