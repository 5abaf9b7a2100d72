#ifndef VEL_IO_DUMMY_USB_IO_QT_CAMERA_H
#define VEL_IO_DUMMY_USB_IO_QT_CAMERA_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/LockOrder.h"
#include "io/DummyUsbIo/CaptureThread.h"
#include "io/DummyUsbIo/ICamera.h"

namespace vel {

// A local camera, through the capture library. Its pictures go to the callback that is registered with that library;
// SetStreamCallback has no part in it. The array of GetParamList is the library's, valid until Close.
//
// Threads: the library's worker opens the camera, the open thread holds that worker until the camera is closed, and the
// stream thread is inside the library while it captures. A camera that does not finish opening, or does not stop, keeps
// the caller 1000 ms at most when it is closed, stopped or destroyed (CaptureThread).
class QtCamera final : public ICamera {
 public:
  QtCamera() = default;
  ~QtCamera() override;

  int GetCameraList(std::vector<_CameraInfo>& list) override;
  int GetParamList(_CameraParam** list, int* count) override;
  // Waits up to 3000 ms for the camera. One that was late is being closed when this returns.
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
  void CancelOpen() override;

 private:
  struct Opening;

  static void OpenCamera(void* context);
  static void HoldWorker(Opening& opening);
  void ReleaseWorker();

  bool mStopped = true;
  std::string mCameraId;
  bool mOpened = false;
  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  bool mOpenCancelled VEL_GUARDED_BY(mMutex) = false;
  std::shared_ptr<Opening> mOpening VEL_GUARDED_BY(mMutex);
  CaptureThread mOpenThread;
  std::shared_ptr<std::atomic<bool>> mStreamWanted;
  CaptureThread mStreamThread;
};

}  // namespace vel

#endif
