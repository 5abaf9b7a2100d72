#ifndef VIRTUSB_HOST_CMD_SERVE_DEVICE_PRESENCE_H
#define VIRTUSB_HOST_CMD_SERVE_DEVICE_PRESENCE_H

#include <memory>
#include <optional>
#include <set>
#include <string>

#include "cmd/devices/DeviceChoice.h"
#include "cmd/devices/DeviceHold.h"
#include "cmd/devices/DeviceWatch.h"
#include "cmd/serve/Server.h"
#include "remote/ByteStream.h"
#include "vel/Mutex.h"

namespace vel {

// Whether the device that is served is there, and what its coming and going means for the service. An emulated device
// is always there. Used by one thread, beside the watch's own.
class DevicePresence {
 public:
  // With `wait`, a local device may be absent: it is waited for, and taken back when it returns. Without, one that
  // is not there throws std::runtime_error, as does one that is redirected already.
  DevicePresence(const std::string& device, bool wait, const std::string& cameraSource);

  // The device; waits until it is there. Nothing once stopped, and when the remote side goes meanwhile.
  std::optional<DeviceIdentity> Await(const ByteStream& remote) VEL_EXCLUDES(mMutex);
  bool Waits() const { return mWait; }

  // Brings back what the machine had of the device. To be called when no session has it.
  void GiveBack() VEL_EXCLUDES(mMutex);

  // Tells a server of the device's coming and going, for a scope.
  class Attachment {
   public:
    Attachment(DevicePresence& presence, Server& server);
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;
    ~Attachment();

   private:
    DevicePresence& mPresence;
  };

 private:
  void OnArrived(const DeviceIdentity& identity) VEL_EXCLUDES(mMutex);
  void OnLeft(const DeviceIdentity& identity) VEL_EXCLUDES(mMutex);

  // Makes the device this process's own.
  void Take(const DeviceIdentity& identity) VEL_REQUIRES(mMutex);

  const bool mWait;
  Mutex mMutex;
  std::optional<DeviceIdentity> mPresent VEL_GUARDED_BY(mMutex);
  std::unique_ptr<DeviceHold> mHold VEL_GUARDED_BY(mMutex);  // Of a local device that is there.
  std::set<std::string> mRefusals VEL_GUARDED_BY(mMutex);    // Why one could not be taken, each told once.
  Server* mServer VEL_GUARDED_BY(mMutex) = nullptr;
  std::shared_ptr<StopSignal> mArrival VEL_GUARDED_BY(mMutex);  // Raised when somebody waits and the device is there.
  std::unique_ptr<DeviceWatch> mWatch;                          // Null for an emulated device.
};

}  // namespace vel

#endif
