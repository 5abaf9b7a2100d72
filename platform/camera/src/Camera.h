#ifndef OSKELO_CAMERA_CAMERA_H
#define OSKELO_CAMERA_CAMERA_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "CameraSource.h"
#include "oskelo/camera.h"
#include "vel/Mutex.h"

namespace oskelo {

// One camera from its opening to its closing: the source, who uses it at the moment, and whom its
// pictures go to. The operations are those of oskelo/camera.h, for any thread; the callback is
// called with no lock held.
class Camera final : private PictureSink {
 public:
  explicit Camera(std::string id) : mId(std::move(id)) {}

  // Once. Negative also when Close came first.
  int Open() VEL_EXCLUDES(mMutex);
  void Close() VEL_EXCLUDES(mMutex);
  int GetParamList(_CameraParam** list, int* count) VEL_EXCLUDES(mMutex);
  int SetParam(const _CameraParam& param) VEL_EXCLUDES(mMutex);
  int StreamOn() VEL_EXCLUDES(mMutex);
  int StreamOff() VEL_EXCLUDES(mMutex);
  void SetCallback(CamStreamCallback callback, void* context) VEL_EXCLUDES(mMutex);

 private:
  enum class Use : std::uint8_t { kNone, kSelecting, kStreaming };

  void OnPicture(std::span<std::uint8_t> picture) override VEL_EXCLUDES(mMutex);
  // Reserves the source; null, with an Error line, when it is closed or in use.
  CameraSource* Begin(Use use) VEL_EXCLUDES(mMutex);
  bool Select(CameraSource& source, const _CameraParam& param) const;
  void End() VEL_EXCLUDES(mMutex);

  const std::string mId;
  std::atomic<bool> mClosing{false};  // Written under the mutex; read by an opening that it ends.
  vel::Mutex mMutex;
  vel::CondVar mChanged;
  std::unique_ptr<CameraSource> mSource VEL_GUARDED_BY(mMutex);
  Use mUse VEL_GUARDED_BY(mMutex) = Use::kNone;
  std::uint64_t mUses VEL_GUARDED_BY(mMutex) = 0;  // How often it was reserved: tells one stream from the next.
  std::thread::id mUser VEL_GUARDED_BY(mMutex);
  CamStreamCallback mCallback VEL_GUARDED_BY(mMutex) = nullptr;
  void* mContext VEL_GUARDED_BY(mMutex) = nullptr;
  bool mDelivering VEL_GUARDED_BY(mMutex) = false;
  std::uint64_t mDelivered VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace oskelo

#endif
