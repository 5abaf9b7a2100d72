#include "io/DummyUsbIo/UvcStreamContext.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace vel {

void UvcStreamContext::Open() {
  const MutexLock lock(mMutex);
  mOpen = true;
}

void UvcStreamContext::Close() {
  _UsbIoXferInfo* left = nullptr;
  {
    const MutexLock lock(mMutex);
    mOpen = false;
    left = std::exchange(mPending, nullptr);
  }
  if (left != nullptr) {
    FailXfer(left, kXferCancelled);
  }
}

bool UvcStreamContext::SetPending(_UsbIoXferInfo* info, int width, int height) {
  _UsbIoXferInfo* failed = info;
  std::int32_t status = kXferCancelled;
  bool waits = false;
  {
    const MutexLock lock(mMutex);
    mSize = {width, height};
    const bool ownWaits = mPending != nullptr && IdSpace(*mPending) == kModuleIds;
    if (mOpen && ownWaits && info != nullptr && IdSpace(*info) != kModuleIds) {
      status = kXferError;
    } else if (mOpen) {
      failed = std::exchange(mPending, info);
      waits = true;
    }
  }
  if (failed != nullptr) {
    FailXfer(failed, status);
  }
  return waits;
}

void UvcStreamContext::Cancel(std::uint32_t localXferId) {
  CancelIf([localXferId](const _UsbIoXferInfo& info) { return HasRemoteId(info, localXferId); });
}

bool UvcStreamContext::CancelOwn(const UsbIoTransferCallback* callback) {
  return CancelIf([callback](const _UsbIoXferInfo& info) { return IsOwnOf(info, callback); });
}

bool UvcStreamContext::CancelIf(const std::function<bool(const _UsbIoXferInfo&)>& meant) {
  _UsbIoXferInfo* cancelled = nullptr;
  {
    const MutexLock lock(mMutex);
    if (mPending == nullptr || !meant(*mPending)) {
      return false;
    }
    cancelled = std::exchange(mPending, nullptr);
  }
  FailXfer(cancelled, kXferCancelled);
  return true;
}

void UvcStreamContext::Deliver(std::span<const std::uint8_t> picture) {
  _UsbIoXferInfo* info = nullptr;
  {
    const MutexLock lock(mMutex);
    info = std::exchange(mPending, nullptr);
  }
  Complete(info, picture);
}

void UvcStreamContext::Deliver(std::span<const std::uint8_t> picture, const void* only) {
  _UsbIoXferInfo* info = nullptr;
  {
    const MutexLock lock(mMutex);
    if (mPending == only) {
      info = std::exchange(mPending, nullptr);
    }
  }
  Complete(info, picture);
}

UvcStreamContext::FrameSize UvcStreamContext::Size() const {
  const MutexLock lock(mMutex);
  return mSize;
}

// The transfer was taken out, so that its copy needs no lock.
void UvcStreamContext::Complete(_UsbIoXferInfo* info, std::span<const std::uint8_t> picture) {
  if (info == nullptr) {
    return;
  }
  std::size_t length = 0;
  if (info->data != nullptr) {
    length = std::min<std::size_t>(picture.size(), info->length);
    std::copy_n(picture.begin(), length, info->data);  // Also of nothing.
  }
  info->length = static_cast<std::uint32_t>(length);
  CompleteXfer(info);
}

}  // namespace vel
