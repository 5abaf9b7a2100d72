#ifndef VEL_IO_DUMMY_USB_IO_I_CAMERA_H
#define VEL_IO_DUMMY_USB_IO_I_CAMERA_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "io/DummyUsbIo/CameraStreamCallback.h"
#include "oskelo/camera.h"

namespace vel {

using ::_CameraParam;
static_assert(sizeof(_CameraParam) == 16);

// One camera that a source can open.
struct _CameraInfo {
  std::uint32_t index;
  std::uint8_t reserved[16];
  char name[128];  // NUL-terminated.
  std::uint8_t available;
  std::uint8_t reserved2[771];
};
static_assert(sizeof(_CameraInfo) == 920 && offsetof(_CameraInfo, name) == 20 &&
              offsetof(_CameraInfo, available) == 148);

// Where the emulated camera's pictures come from. The order of the virtual operations is a binary interface.
//
// Results are 0 or more, or negative on failure. One thread at a time, but for SetStreamCallback and CancelOpen, which
// any thread may call while another operation runs; no callback comes after StreamOff has returned.
class ICamera {
 public:
  ICamera() = default;
  ICamera(const ICamera&) = delete;
  ICamera& operator=(const ICamera&) = delete;
  // Ends the stream and closes the camera.
  virtual ~ICamera() = default;

  // Appends.
  virtual int GetCameraList(std::vector<_CameraInfo>& list) = 0;
  // The kinds of picture that the camera delivers. Whose the array is depends on the source: see there.
  virtual int GetParamList(_CameraParam** list, int* count) = 0;
  virtual int Open(const std::string& id) = 0;
  virtual int Close() = 0;
  virtual int SetParam(_CameraParam* param) = 0;
  virtual int StreamOn() = 0;
  virtual int StreamOff() = 0;
  virtual int GetCurrentFrame(std::uint8_t** data, std::uint32_t* length) = 0;
  virtual int SetStreamCallback(CameraStreamCallback* callback, void* context) = 0;
  virtual int EnableDebug(bool enable) = 0;
  virtual int GetParam(_CameraParam* param) = 0;
  virtual int ProbeParam(_CameraParam* param) = 0;
  // Makes an Open that runs return soon, and every later one at once: as failed, unless it was faster.
  virtual void CancelOpen() {}
};

}  // namespace vel

#endif
