#ifndef VEL_IO_DUMMY_USB_IO_QT_CAMERA_H
#define VEL_IO_DUMMY_USB_IO_QT_CAMERA_H

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "io/DummyUsbIo/ICamera.h"

namespace vel {

// A local camera, through the capture library. Its pictures go to the callback that is registered with that library;
// SetStreamCallback has no part in it. The array of GetParamList is the library's, valid until Close.
//
// Threads: the library's worker opens the camera, the open thread holds that worker until the camera is closed, and the
// stream thread is inside the library while it captures. Neither a camera that does not finish opening nor one that
// does not stop keeps the caller: what it needs is shared with its thread, which ends by itself.
class QtCamera final : public ICamera {
 public:
  QtCamera() = default;
  ~QtCamera() override;

  int GetCameraList(std::vector<_CameraInfo>& list) override;
  int GetParamList(_CameraParam** list, int* count) override;
  // Waits up to 3000 ms for the camera.
  int Open(const std::string& id) override;
  int Close() override;
  int SetParam(_CameraParam* param) override;
  int StreamOn() override;
  // Returns when the capture has ended, or after 1000 ms.
  int StreamOff() override;
  int GetCurrentFrame(std::uint8_t** data, std::uint32_t* length) override;
  int SetStreamCallback(CameraStreamCallback* callback, void* context) override;
  int EnableDebug(bool enable) override;
  int GetParam(_CameraParam* param) override;
  int ProbeParam(_CameraParam* param) override;

 private:
  struct Opening;
  struct Streaming;

  static void OpenCamera(void* context);
  static void HoldWorker(const std::shared_ptr<Opening>& opening);
  static void Capture(Streaming& streaming, const std::string& id);
  void ReleaseWorker();
  void ReleaseStreamThread();

  bool mStopped = true;
  std::string mCameraId;
  bool mOpened = false;
  std::shared_ptr<Opening> mOpening;
  std::thread mOpenThread;
  std::shared_ptr<Streaming> mStreaming;
  std::thread mStreamThread;
};

}  // namespace vel

#endif
