#ifndef VEL_IO_DUMMY_USB_IO_I_CAMERA_FACTORY_H
#define VEL_IO_DUMMY_USB_IO_I_CAMERA_FACTORY_H

#include "io/DummyUsbIo/ICamera.h"

namespace vel {

enum CameraType : int {
  kCameraSynthetic = 0,
  kCameraLocal = 1,
  kCameraV4l2 = 2,  // Known, and not made: the capture library has such devices.
};

class ICameraFactory {
 public:
  // A new source, owned by the caller: local for 1, null for 2, synthetic for any other type. Any thread.
  static ICamera* CreateCamera(int type);
};

}  // namespace vel

#endif
