#include "cmd/devices/LocalDevices.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <utility>

#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/SystemDevices.h"

namespace vel {
namespace {

// Where nobody tells of devices. What an event has told is not looked at as well: the two may cross.
constexpr std::chrono::seconds kLookEvery{1};
// Where somebody does: an event ends the wait, also the one that ends the watch.
constexpr std::chrono::seconds kEventWait{60};

struct DeviceListDeleter {
  void operator()(libusb_device** list) const { libusb_free_device_list(list, 1); }
};
struct ConfigDeleter {
  void operator()(libusb_config_descriptor* config) const { libusb_free_config_descriptor(config); }
};
struct HandleDeleter {
  void operator()(libusb_device_handle* handle) const { libusb_close(handle); }
};

LibusbContextHandle NewContext() {
  libusb_context* context = nullptr;
  if (const int error = libusb_init(&context); error != 0) {
    throw std::runtime_error(std::string("cannot look for USB devices: ") + libusb_strerror(error));
  }
  TakeSystemBackend(context);
  return LibusbContextHandle(context);
}

bool IsHub(const libusb_device_descriptor& desc) {
  return desc.bDeviceClass == LIBUSB_CLASS_HUB;
}

DeviceIdentity IdentityOf(libusb_device* device, const libusb_device_descriptor& desc) {
  return {libusb_get_bus_number(device), libusb_get_device_address(device), desc.idVendor, desc.idProduct, ""};
}

// Calls visit(device, descriptor) for each device and hub.
template <class Visit>
void ForEachDevice(Visit visit) {
  const LibusbContextHandle context = NewContext();
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

namespace {

std::vector<DeviceIdentity> FindAll(const LocalSelector& selector) {
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

}  // namespace

std::optional<DeviceIdentity> FindLocalDevice(const LocalSelector& selector) {
  const std::vector<DeviceIdentity> found = FindAll(selector);
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

DeviceWatch::DeviceWatch(const LocalSelector& selector, Callbacks callbacks)
    : mSelector(selector),
      mCallbacks(std::move(callbacks)),
      mContext(NewContext()),
      mIsTold(libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) != 0 && WhyNobodyTellsOfDevices() == nullptr) {
  if (libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) != 0) {
    Register();
  } else {
    LookForChange();
  }
  mThread = std::thread([this] { HandleEvents(); });
}

DeviceWatch::~DeviceWatch() {
  mStopped = true;
  if (libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) != 0) {
    libusb_hotplug_deregister_callback(mContext.get(), mHotplug);
  }
  libusb_interrupt_event_handler(mContext.get());
  mThread.join();
}

void DeviceWatch::Register() {
  const int error = libusb_hotplug_register_callback(
      mContext.get(), LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, LIBUSB_HOTPLUG_ENUMERATE,
      LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, &DeviceWatch::OnHotplug, this,
      &mHotplug);
  if (error != 0) {
    throw std::runtime_error(std::string("cannot watch for USB devices: ") + libusb_strerror(error));
  }
}

void DeviceWatch::HandleEvents() {
  using Clock = std::chrono::steady_clock;
  const std::chrono::seconds every = mIsTold ? kEventWait : kLookEvery;
  Clock::time_point due = Clock::now() + every;
  while (!mStopped) {
    const auto left = std::max(std::chrono::ceil<std::chrono::microseconds>(due - Clock::now()), {});
    timeval wait{
        static_cast<decltype(timeval::tv_sec)>(left / std::chrono::seconds(1)),
        static_cast<decltype(timeval::tv_usec)>(left % std::chrono::seconds(1) / std::chrono::microseconds(1))};
    libusb_handle_events_timeout_completed(mContext.get(), &wait, nullptr);
    if (!mStopped && Clock::now() >= due) {
      if (!mIsTold) {
        LookForChange();
      }
      due = Clock::now() + every;
    }
  }
}

void DeviceWatch::LookForChange() {
  std::vector<DeviceIdentity> all;
  try {
    all = FindAll(mSelector);
  } catch (const std::runtime_error&) {
    return;  // In a second, perhaps.
  }
  for (const DeviceIdentity& seen : std::exchange(mSeen, all)) {
    if (!Contains(all, seen)) {
      mCallbacks.onLeft(seen);
    }
  }
  std::ranges::for_each(all, mCallbacks.onArrived);  // Again, too: it may be free by now.
}

int LIBUSB_CALL DeviceWatch::OnHotplug(libusb_context* /*context*/, libusb_device* device, libusb_hotplug_event event,
                                       void* self) {
  auto& watch = *static_cast<DeviceWatch*>(self);
  libusb_device_descriptor desc{};
  libusb_get_device_descriptor(device, &desc);
  const DeviceIdentity identity = IdentityOf(device, desc);
  if (IsHub(desc) || !watch.mSelector.Matches(identity)) {
    return 0;
  }
  if (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED) {
    if (!Contains(watch.mSeen, identity)) {
      watch.mSeen.push_back(identity);  // Where nobody tells when it leaves, it is missed then.
    }
    watch.mCallbacks.onArrived(identity);
  } else {
    std::erase_if(watch.mSeen, [&](const DeviceIdentity& seen) { return AreSamePlace(seen, identity); });
    watch.mCallbacks.onLeft(identity);
  }
  return 0;
}

}  // namespace vel
