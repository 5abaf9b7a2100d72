#include "CameraLog.h"
#include "CaptureDevices.h"

namespace oskelo {

bool IsCaptureDevice(const std::string& /*name*/) {
  return false;
}

std::string FirstCaptureDevice() {
  return {};
}

std::unique_ptr<CameraSource> OpenCaptureDevice(const std::string& name) {
  CAMERA_ERROR(name, "capture devices of this platform are not supported");
  return nullptr;
}

}  // namespace oskelo
