#ifndef VEL_IO_DUMMY_USB_IO_UVC_CONTROLS_H
#define VEL_IO_DUMMY_USB_IO_UVC_CONTROLS_H

#include <cstdint>
#include <optional>

#include <libusb-1.0/libusb.h>

#include "base/LockOrder.h"
#include "uvc/UVCDescriptors.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel {

// The class requests of the emulated camera and what they have negotiated: the probe and commit control, and the frame
// that it selects. No request is refused. Any thread.
class UvcControls {
 public:
  // Starts over with the formats of a configuration, at format 1, frame 1.
  void InitCtrlInfo(const libusb_config_descriptor* config) VEL_EXCLUDES(mMutex);

  // Carries out a control request; requests of others change nothing. Returns the bytes of its answer: `wLength`, but
  // not more of the probe and commit control than there is.
  int UvcParseCtrlCmd(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) VEL_EXCLUDES(mMutex);

  // Of the last probe or commit that named a frame that there is. Empty before InitCtrlInfo.
  std::optional<UVCFrameDesc> CurrentFrame() const VEL_EXCLUDES(mMutex);

 private:
  int Get(std::uint16_t wValue, std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength) VEL_EXCLUDES(mMutex);
  void Set(std::uint8_t selector, const std::uint8_t* data, std::uint16_t wLength) VEL_EXCLUDES(mMutex);
  void SelectFrame() VEL_REQUIRES(mMutex);

  mutable Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  UVCInputHeaderPtr mStreamingInfo VEL_GUARDED_BY(mMutex);
  UVCStreamCtrl mStreamCtrl VEL_GUARDED_BY(mMutex){};
  std::optional<UVCFrameDesc> mCurrentFrame VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
