#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_CAMERA_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_CAMERA_H

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/LockOrder.h"
#include "io/DummyUsbIo/ICamera.h"

namespace vel {

// A synthetic source that paints a moving test pattern: one picture for each SetStreamCallback, 30 ms or more apart.
// The array of GetParamList is the caller's, who frees it with delete[].
class DummyCamera final : public ICamera {
 public:
  DummyCamera() = default;
  ~DummyCamera() override;

  int GetCameraList(std::vector<_CameraInfo>& list) override;
  int GetParamList(_CameraParam** list, int* count) override;
  int Open(const std::string& id) override;
  int Close() override;
  // Refuses a side above 8192 pixels.
  int SetParam(_CameraParam* param) override;
  int StreamOn() override;
  int StreamOff() override;
  int GetCurrentFrame(std::uint8_t** data, std::uint32_t* length) override;
  // The callback and context of the latest call get the pictures of all.
  int SetStreamCallback(CameraStreamCallback* callback, void* context) override;
  int EnableDebug(bool enable) override;
  int GetParam(_CameraParam* param) override;
  int ProbeParam(_CameraParam* param) override;

  // Paints picture number `n`: two planes of width * height bytes each.
  static void Paint(std::span<std::uint8_t> picture, std::uint32_t width, std::uint32_t height, std::uint32_t n);

 private:
  void FrameHandler();
  // False when stopped.
  bool AwaitRequest() VEL_EXCLUDES(mMutex);
  void DeliverPicture(std::vector<std::uint8_t>& picture) VEL_EXCLUDES(mMutex);
  bool IsProducer() const { return mProducer.get_id() == std::this_thread::get_id(); }

  static std::atomic<std::uint32_t> mFrameNumber;  // Of all instances.

  std::thread mProducer;
  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  CondVar mChanged;
  int mPending VEL_GUARDED_BY(mMutex) = 0;
  void* mContext VEL_GUARDED_BY(mMutex) = nullptr;
  CameraStreamCallback* mCallback VEL_GUARDED_BY(mMutex) = nullptr;
  bool mStopped VEL_GUARDED_BY(mMutex) = true;
  std::uint32_t mWidth VEL_GUARDED_BY(mMutex) = 0;
  std::uint32_t mHeight VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace vel

#endif
