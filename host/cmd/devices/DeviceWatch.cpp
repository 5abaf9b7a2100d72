#include "cmd/devices/DeviceWatch.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>

#include "cmd/devices/DevicePlace.h"
#include "cmd/devices/SystemDevices.h"

namespace vel {
namespace {

// Where nobody tells of devices. What an event has told is not looked at as well: the two may cross.
constexpr std::chrono::seconds kLookEvery{1};
// Where somebody does: an event ends the wait, also the one that ends the watch.
constexpr std::chrono::seconds kEventWait{60};

}  // namespace

DeviceWatch::DeviceWatch(const LocalSelector& selector, Callbacks callbacks)
    : mSelector(selector),
      mCallbacks(std::move(callbacks)),
      mContext(NewUsbContext()),
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
    all = FindLocalDevices(mSelector);
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
