#include "cmd/LocalDevices.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <utility>

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
  return LibusbContextHandle(context);
}

bool IsHub(const libusb_device_descriptor& desc) {
  return desc.bDeviceClass == LIBUSB_CLASS_HUB;
}

DeviceIdentity IdentityOf(libusb_device* device, const libusb_device_descriptor& desc) {
  return {libusb_get_bus_number(device), libusb_get_device_address(device), desc.idVendor, desc.idProduct, ""};
}

// BUS:ADDRESS, as the command line takes it.
std::string Place(const DeviceIdentity& identity) {
  return std::to_string(identity.bus) + ":" + std::to_string(identity.address);
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

bool AreSamePlace(const DeviceIdentity& one, const DeviceIdentity& other) {
  return one.bus == other.bus && one.address == other.address;
}

bool IsBefore(const DeviceIdentity& one, const DeviceIdentity& other) {
  return std::pair(one.bus, one.address) < std::pair(other.bus, other.address);
}

template <class T>
bool IsWanted(const std::optional<T>& wanted, T value) {
  return !wanted || *wanted == value;
}

}  // namespace

std::vector<LocalDevice> LocalDevices() {
  std::vector<LocalDevice> devices;
  ForEachDevice([&](libusb_device* device, const libusb_device_descriptor& desc) {
    if (!IsHub(desc)) {
      devices.push_back(LookAt(device, IdentityOf(device, desc)));
    }
  });
  std::ranges::sort(devices, &IsBefore, &LocalDevice::identity);
  return devices;
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

bool DeviceWatch::IsTold() {
  return access("/run/udev/control", F_OK) == 0;
}

void DeviceWatch::HandleEvents() {
  using Clock = std::chrono::steady_clock;
  const bool told = IsTold();
  const std::chrono::seconds every = told ? kEventWait : kLookEvery;
  Clock::time_point due = Clock::now() + every;
  while (!mStopped) {
    const auto left = std::max(std::chrono::ceil<std::chrono::microseconds>(due - Clock::now()), {});
    timeval wait{left / std::chrono::seconds(1), left % std::chrono::seconds(1) / std::chrono::microseconds(1)};
    libusb_handle_events_timeout_completed(mContext.get(), &wait, nullptr);
    if (!mStopped && Clock::now() >= due) {
      if (!told) {
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
  const bool same = mSeen && std::ranges::any_of(all, [this](const DeviceIdentity& identity) {
                      return AreSamePlace(identity, *mSeen);
                    });
  const std::optional<DeviceIdentity> found = same ? mSeen : all.empty() ? std::nullopt : std::optional(all.front());
  if (mSeen && !same) {
    mCallbacks.onLeft(*mSeen);
  }
  if (found) {
    mCallbacks.onArrived(*found);  // Again, too: it may be free by now.
  }
  mSeen = found;
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
    watch.mSeen = watch.mSeen ? watch.mSeen : identity;  // Where nobody tells when it leaves, it is missed then.
    watch.mCallbacks.onArrived(identity);
  } else {
    watch.mCallbacks.onLeft(identity);
  }
  return 0;
}

}  // namespace vel
