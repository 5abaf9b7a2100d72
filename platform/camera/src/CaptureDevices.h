// The capture devices of this platform. Any thread.
#ifndef OSKELO_CAMERA_CAPTURE_DEVICES_H
#define OSKELO_CAMERA_CAPTURE_DEVICES_H

#include <memory>
#include <string>

#include "CameraSource.h"

namespace oskelo {

// Whether the name is one of a device, there or not.
bool IsCaptureDevice(const std::string& name);
// The lowest-numbered device that captures pictures; "" when there is none.
std::string FirstCaptureDevice();
// Null after an Error line.
std::unique_ptr<CameraSource> OpenCaptureDevice(const std::string& name);

}  // namespace oskelo

#endif
