#include "cmd/LocalDevices.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <utility>

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

LibusbContextHandle NewContext() {
  libusb_context* context = nullptr;
  if (const int error = libusb_init(&context); error != 0) {
    throw std::runtime_error(std::string("cannot look for USB devices: ") + libusb_strerror(error));
  }
  return LibusbContextHandle(context);
}

// Nothing for a hub, and for a device that is going away.
std::optional<DeviceIdentity> IdentityOf(libusb_device* device) {
  libusb_device_descriptor desc{};
  if (libusb_get_device_descriptor(device, &desc) != 0 || desc.bDeviceClass == LIBUSB_CLASS_HUB) {
    return std::nullopt;
  }
  return DeviceIdentity{libusb_get_bus_number(device), libusb_get_device_address(device), desc.idVendor, desc.idProduct,
                        ""};
}

// Calls visit(device, identity) for each device.
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
    if (const std::optional<DeviceIdentity> identity = IdentityOf(device)) {
      visit(device, *identity);
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

std::vector<std::uint8_t> InterfaceClasses(libusb_device* device) {
  std::vector<std::uint8_t> classes;
  libusb_config_descriptor* raw = nullptr;
  if (libusb_get_active_config_descriptor(device, &raw) == 0) {
    const std::unique_ptr<libusb_config_descriptor, ConfigDeleter> config(raw);
    for (const libusb_interface& interface : std::span(config->interface, config->bNumInterfaces)) {
      if (interface.num_altsetting > 0) {
        classes.push_back(interface.altsetting[0].bInterfaceClass);
      }
    }
  }
  return classes;
}

LocalDevice LookAt(libusb_device* device, const DeviceIdentity& identity) {
  LocalDevice local;
  local.identity = identity;
  local.speed = libusb_get_device_speed(device);
  local.interfaces = InterfaceClasses(device);
  libusb_device_handle* raw = nullptr;
  local.openError = libusb_open(device, &raw);
  if (local.openError == 0) {
    const std::unique_ptr<libusb_device_handle, HandleDeleter> handle(raw);
    libusb_device_descriptor desc{};
    libusb_get_device_descriptor(device, &desc);
    local.manufacturer = ReadText(handle.get(), desc.iManufacturer);
    local.product = ReadText(handle.get(), desc.iProduct);
  }
  return local;
}

template <class T>
bool IsWanted(const std::optional<T>& wanted, T value) {
  return !wanted || *wanted == value;
}

}  // namespace

std::vector<LocalDevice> LocalDevices() {
  std::vector<LocalDevice> devices;
  ForEachDevice(
      [&](libusb_device* device, const DeviceIdentity& identity) { devices.push_back(LookAt(device, identity)); });
  std::sort(devices.begin(), devices.end(), [](const LocalDevice& a, const LocalDevice& b) {
    return std::pair(a.identity.bus, a.identity.address) < std::pair(b.identity.bus, b.identity.address);
  });
  return devices;
}

bool LocalSelector::Matches(const DeviceIdentity& identity) const {
  return IsWanted(bus, identity.bus) && IsWanted(address, identity.address) && IsWanted(vendorId, identity.vendorId) &&
         IsWanted(productId, identity.productId);
}

std::optional<DeviceIdentity> FindLocalDevice(const LocalSelector& selector) {
  std::optional<DeviceIdentity> found;
  ForEachDevice([&](libusb_device*, const DeviceIdentity& identity) {
    if (!found && selector.Matches(identity)) {
      found = identity;
    }
  });
  return found;
}

std::optional<int> ActiveConfiguration(const DeviceIdentity& wanted) {
  std::optional<int> value;
  ForEachDevice([&](libusb_device* device, const DeviceIdentity& identity) {
    if (identity.bus == wanted.bus && identity.address == wanted.address) {
      libusb_config_descriptor* raw = nullptr;
      const int result = libusb_get_active_config_descriptor(device, &raw);
      const std::unique_ptr<libusb_config_descriptor, ConfigDeleter> config(result == 0 ? raw : nullptr);
      value = config == nullptr ? 0 : config->bConfigurationValue;
    }
  });
  return value;
}

DeviceWatch::DeviceWatch(const LocalSelector& selector, Callbacks callbacks)
    : mSelector(selector), mCallbacks(std::move(callbacks)), mContext(NewContext()) {
  if (libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG) == 0) {
    throw std::runtime_error("this machine's libusb cannot tell when devices come and go");
  }
  const int error = libusb_hotplug_register_callback(
      mContext.get(), LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT, LIBUSB_HOTPLUG_ENUMERATE,
      LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, LIBUSB_HOTPLUG_MATCH_ANY, &DeviceWatch::OnHotplug, this,
      &mHotplug);
  if (error != 0) {
    throw std::runtime_error(std::string("cannot watch for USB devices: ") + libusb_strerror(error));
  }
  mThread = std::thread([this] { HandleEvents(); });
}

DeviceWatch::~DeviceWatch() {
  mStopped = true;
  libusb_hotplug_deregister_callback(mContext.get(), mHotplug);
  libusb_interrupt_event_handler(mContext.get());
  mThread.join();
}

void DeviceWatch::HandleEvents() {
  while (!mStopped) {
    timeval wait{60, 0};  // Interrupted when the watch ends.
    libusb_handle_events_timeout_completed(mContext.get(), &wait, nullptr);
  }
}

int LIBUSB_CALL DeviceWatch::OnHotplug(libusb_context* /*context*/, libusb_device* device, libusb_hotplug_event event,
                                       void* self) {
  const auto& watch = *static_cast<const DeviceWatch*>(self);
  const std::optional<DeviceIdentity> identity = IdentityOf(device);
  if (identity && watch.mSelector.Matches(*identity)) {
    (event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED ? watch.mCallbacks.onArrived : watch.mCallbacks.onLeft)(*identity);
  }
  return 0;
}

}  // namespace vel
