#ifndef VEL_IO_DUMMY_USB_IO_CAMERA_STREAM_CALLBACK_H
#define VEL_IO_DUMMY_USB_IO_CAMERA_STREAM_CALLBACK_H

#include <cstdint>

namespace vel {

// Takes pictures from a camera source.
class CameraStreamCallback {
 public:
  CameraStreamCallback() = default;
  CameraStreamCallback(const CameraStreamCallback&) = delete;
  CameraStreamCallback& operator=(const CameraStreamCallback&) = delete;

  // One picture, valid during the call; the source's thread, no lock of the source held. `context` is what was given
  // with the callback, and may be stale when it was given for an earlier picture.
  virtual void CameraStreamCb(std::uint8_t* data, std::uint32_t length, void* context) = 0;

 protected:
  ~CameraStreamCallback() = default;
};

}  // namespace vel

#endif
