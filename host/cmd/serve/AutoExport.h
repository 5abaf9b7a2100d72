#ifndef VIRTUSB_HOST_CMD_SERVE_AUTO_EXPORT_H
#define VIRTUSB_HOST_CMD_SERVE_AUTO_EXPORT_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cmd/devices/DeviceFilter.h"
#include "cmd/devices/DeviceWatch.h"
#include "cmd/devices/LocalDevices.h"
#include "far/FarDevice.h"
#include "far/UsbipServer.h"
#include "vel/Mutex.h"

namespace vel {

// Exports each local device that a filter allows, as it comes and goes. A port keeps its bus id as long as this lives,
// whatever is plugged into it. One that cannot be opened is told of once, and tried again every two seconds. A thread
// of its own opens and closes devices; the watch only wakes it.
class AutoExport {
 public:
  // Opens BUS:ADDRESS. Throws what is to be told of, and Interrupted.
  using Open = std::function<std::unique_ptr<FarDevice>(const std::string& device)>;

  // `named` are the devices that have the first bus ids of `server`, which outlives this; those that are local keep
  // them. Throws std::runtime_error when this machine's devices cannot be watched.
  AutoExport(DeviceFilter filter, const std::vector<std::string>& named, UsbipServer& server, Open open);
  AutoExport(const AutoExport&) = delete;
  AutoExport& operator=(const AutoExport&) = delete;
  // Waits for a device that is being opened: whoever ends this has stopped that.
  ~AutoExport();

 private:
  // What was plugged into a port when it was last looked at, and was allowed.
  struct Port {
    std::uint32_t number = 0;  // Of its bus id.
    DeviceIdentity device;
    bool plugged = false;
    bool opened = false;  // Once a device is gone, it does not come back to its address.
    std::string refusal;  // Why it could not be opened.
  };

  // The watch's thread.
  void OnArrived(const DeviceIdentity& device) VEL_EXCLUDES(mMutex);
  void OnLeft(const DeviceIdentity& device) VEL_EXCLUDES(mMutex);

  // The worker.
  void Work() VEL_EXCLUDES(mMutex);
  // Removes what has left, adds what has come.
  void Look() VEL_EXCLUDES(mMutex);
  std::vector<LocalDevice> Plugged() VEL_EXCLUDES(mMutex);
  void RemoveLeft(const std::vector<LocalDevice>& plugged);
  void TryExport(const LocalDevice& device);
  bool IsStopped() VEL_EXCLUDES(mMutex);

  const DeviceFilter mFilter;
  UsbipServer& mServer;
  const Open mOpen;
  std::map<std::string, Port> mPorts;  // By LocalDevice::port. The worker's and, before that, its maker's.
  std::uint32_t mLastNumber;
  std::string mTrouble;  // With looking.
  Mutex mMutex;
  CondVar mChanged;
  // What the watch has told of. The kernel tells that a device leaves a moment before it stops to show it.
  std::vector<DeviceIdentity> mPresent VEL_GUARDED_BY(mMutex);
  bool mLookAgain VEL_GUARDED_BY(mMutex) = true;
  bool mStopped VEL_GUARDED_BY(mMutex) = false;
  DeviceWatch mWatch;
  std::thread mThread;
};

}  // namespace vel

#endif
