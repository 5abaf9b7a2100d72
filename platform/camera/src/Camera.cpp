#include "Camera.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "CameraLog.h"
#include "OpenSource.h"

namespace oskelo {
namespace {

// The result, false for want of memory or threads: who has begun a use ends it.
template <class Call>
bool Succeeds(Call call) {
  try {
    return call();
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

int Camera::Open() {
  std::unique_ptr<CameraSource> source;
  const auto open = [&] {
    source = OpenSource(mId, mClosing);
    return source != nullptr;
  };
  if (!Succeeds(open)) {
    return -1;
  }
  const vel::MutexLock lock(mMutex);
  if (mClosing) {
    return -1;
  }
  mSource = std::move(source);
  return 0;
}

void Camera::Close() {
  std::unique_ptr<CameraSource> closed;  // Freed without the lock.
  vel::MutexLock lock(mMutex);
  mClosing = true;
  mCallback = nullptr;
  if (mSource != nullptr) {
    mSource->Stop();
  }
  if (mUser == std::this_thread::get_id()) {
    return;  // End closes it.
  }
  while (mUse != Use::kNone) {
    mChanged.Wait(lock);
  }
  closed = std::move(mSource);
}

int Camera::GetParamList(_CameraParam** list, int* count) {
  const vel::MutexLock lock(mMutex);
  if (mSource == nullptr || list == nullptr || count == nullptr) {
    return -1;
  }
  *list = mSource->Params().data();
  *count = static_cast<int>(mSource->Params().size());
  return 0;
}

int Camera::SetParam(const _CameraParam& param) {
  CameraSource* source = Begin(Use::kSelecting);
  if (source == nullptr) {
    return -1;
  }
  const bool selected = Succeeds([&] { return Select(*source, param); });
  End();
  return selected ? 0 : -1;
}

bool Camera::Select(CameraSource& source, const _CameraParam& param) const {
  source.Arm();
  const auto& params = source.Params();
  const bool offered = std::any_of(params.begin(), params.end(), [&param](const _CameraParam& entry) {
    return entry.width == param.width && entry.height == param.height && entry.pixelFormat == param.pixelFormat;
  });
  if (!offered) {
    CAMERA_ERROR(mId, "has no pictures of %ux%u in format %u", param.width, param.height, param.pixelFormat);
  }
  return offered && source.Select(param);
}

int Camera::StreamOn() {
  CameraSource* source = Begin(Use::kStreaming);
  if (source == nullptr) {
    return -1;
  }
  const bool ended = Succeeds([&] { return source->Stream(*this); });
  End();
  return ended ? 0 : -1;
}

int Camera::StreamOff() {
  vel::MutexLock lock(mMutex);
  if (mSource == nullptr) {
    return -1;
  }
  mSource->Stop();
  const std::uint64_t stopped = mUses;
  while (mUse == Use::kStreaming && mUses == stopped && mUser != std::this_thread::get_id()) {
    mChanged.Wait(lock);
  }
  return 0;
}

CameraSource* Camera::Begin(Use use) {
  const vel::MutexLock lock(mMutex);
  if (mSource == nullptr || mClosing) {
    CAMERA_ERROR(mId, "is not open");
    return nullptr;
  }
  if (mUse != Use::kNone) {
    CAMERA_ERROR(mId, "is streaming already");
    return nullptr;
  }
  mUse = use;
  mUser = std::this_thread::get_id();
  ++mUses;
  return mSource.get();
}

void Camera::End() {
  std::unique_ptr<CameraSource> closed;
  {
    const vel::MutexLock lock(mMutex);
    if (mClosing) {
      closed = std::move(mSource);
    }
  }
  closed.reset();  // Before the camera counts as unused: who waits may open the device again.
  {
    const vel::MutexLock lock(mMutex);
    mUse = Use::kNone;
    mUser = {};
  }
  mChanged.NotifyAll();
}

void Camera::SetCallback(CamStreamCallback callback, void* context) {
  vel::MutexLock lock(mMutex);
  if (callback != nullptr && (mClosing || (callback == mCallback && context == mContext))) {
    return;
  }
  mCallback = callback;
  mContext = context;
  const std::uint64_t before = mDelivered;
  while (mDelivering && mDelivered == before && mUser != std::this_thread::get_id()) {
    mChanged.Wait(lock);
  }
}

void Camera::OnPicture(std::span<std::uint8_t> picture) {
  CamStreamCallback callback = nullptr;
  void* context = nullptr;
  {
    const vel::MutexLock lock(mMutex);
    callback = mCallback;
    context = mContext;
    mDelivering = callback != nullptr;
  }
  if (callback == nullptr) {
    return;
  }
  callback(picture.data(), static_cast<unsigned int>(picture.size()), context);
  {
    const vel::MutexLock lock(mMutex);
    mDelivering = false;
    ++mDelivered;
  }
  mChanged.NotifyAll();
}

}  // namespace oskelo
