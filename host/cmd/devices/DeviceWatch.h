#ifndef VIRTUSB_HOST_CMD_DEVICES_DEVICE_WATCH_H
#define VIRTUSB_HOST_CMD_DEVICES_DEVICE_WATCH_H

#include <libusb-1.0/libusb.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "cmd/devices/LocalDevices.h"
#include "cmd/devices/UsbContext.h"
#include "remote/ModuleSession.h"

namespace vel {

// Tells when the selected devices arrive or leave. The callbacks come on the watch's own thread, and for devices that
// are there already once at the start, on its maker's. Something that is known may be told again.
class DeviceWatch {
 public:
  struct Callbacks {
    std::function<void(const DeviceIdentity&)> onArrived;
    std::function<void(const DeviceIdentity&)> onLeft;
  };

  // Throws std::runtime_error when devices cannot be watched on this machine.
  DeviceWatch(const LocalSelector& selector, Callbacks callbacks);
  DeviceWatch(const DeviceWatch&) = delete;
  DeviceWatch& operator=(const DeviceWatch&) = delete;
  // No callback comes after it. Not from a callback.
  ~DeviceWatch();

 private:
  static int LIBUSB_CALL OnHotplug(libusb_context* context, libusb_device* device, libusb_hotplug_event event,
                                   void* self);
  // Asks to be told of devices.
  void Register();
  void HandleEvents();
  void LookForChange();

  const LocalSelector mSelector;
  const Callbacks mCallbacks;
  UsbContext mContext;
  const bool mIsTold;  // Otherwise it looks for them every second.
  libusb_hotplug_callback_handle mHotplug = 0;
  std::atomic<bool> mStopped{false};
  std::vector<DeviceIdentity> mSeen;  // For LookForChange; the watch's thread and, before that, its maker's.
  std::thread mThread;
};

}  // namespace vel

#endif
