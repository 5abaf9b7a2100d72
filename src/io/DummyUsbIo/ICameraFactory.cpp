#include "io/DummyUsbIo/ICameraFactory.h"

#include "base/VelLog.h"
#include "io/DummyUsbIo/DummyCamera.h"
#include "io/DummyUsbIo/QtCamera.h"

namespace vel {

ICamera* ICameraFactory::CreateCamera(int type) {
  VEL_DEBUG("Camera type[%d]", type);
  switch (type) {
    case kCameraLocal:
      return new QtCamera;
    case kCameraV4l2:
      VEL_ERROR("unsupport v4l2 in this platform");
      return nullptr;
    default:
      return new DummyCamera;
  }
}

}  // namespace vel
