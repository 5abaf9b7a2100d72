#ifndef VIRTUSB_HOST_FAR_DEVICE_FACTS_H
#define VIRTUSB_HOST_FAR_DEVICE_FACTS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "far/RequestPipe.h"
#include "far/UsbipWire.h"
#include "remote/ConfigModel.h"

namespace vel {

// What does not change while a device is redirected: asked for once, so that a guest's enumeration takes no round
// trips for it.
class DeviceFacts {
 public:
  // Opens the device and asks it everything, in two round trips. Throws RemoteError when it does not open or answer
  // within `time`. With `transcode`, a camera's raw pictures are to come as H.264.
  static DeviceFacts Ask(RequestPipe& pipe, bool transcode, std::chrono::milliseconds time);

  // The answer to a GET_DESCRIPTOR that was asked before, at most wLength bytes; empty for one that the device
  // stalls. Nothing for all other requests.
  std::optional<std::span<const std::uint8_t>> Answer(const ControlSetup& setup) const;

  const DeviceModel& Device() const { return mDevice; }
  const ConfigModel& Config() const { return mConfig; }  // The one that was active at first.
  int Speed() const { return mSpeed; }                   // enum libusb_speed
  std::uint32_t KernelSpeed() const;                     // enum usb_device_speed of Linux
  bool IsEmulated() const { return mEmulated; }
  std::string Product() const;  // As the device says it, printable; empty when it does not.
  UsbipDeviceRecord Record(std::string busId, std::uint32_t deviceNumber) const;

 private:
  using Key = std::pair<std::uint16_t, std::uint16_t>;  // wValue, wIndex

  DeviceModel mDevice;
  ConfigModel mConfig;
  int mSpeed = 0;
  bool mEmulated = false;
  std::map<Key, std::vector<std::uint8_t>> mDescriptors;

  void AskRest(RequestPipe& pipe, std::chrono::milliseconds time);
  void CorrectPacketSize();
};

}  // namespace vel

#endif
