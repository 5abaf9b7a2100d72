#include "io/DummyUsbIo/PendingXfers.h"

#include <algorithm>
#include <iterator>
#include <new>

namespace vel {

bool PendingXfers::Add(_UsbIoXferInfo* info) noexcept {
  const MutexLock lock(mMutex);
  try {
    mXfers.push_back(info);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

bool PendingXfers::Cancel(std::uint32_t localXferId) {
  return CancelLatest([localXferId](const _UsbIoXferInfo& info) { return HasRemoteId(info, localXferId); });
}

int PendingXfers::CancelOwn(const UsbIoTransferCallback* callback) {
  int count = 0;
  while (CancelLatest([callback](const _UsbIoXferInfo& info) { return IsOwnOf(info, callback); })) {
    ++count;
  }
  return count;
}

bool PendingXfers::CancelLatest(const std::function<bool(const _UsbIoXferInfo&)>& meant) {
  _UsbIoXferInfo* cancelled = nullptr;
  {
    const MutexLock lock(mMutex);
    const auto found =
        std::find_if(mXfers.rbegin(), mXfers.rend(), [&meant](const _UsbIoXferInfo* info) { return meant(*info); });
    if (found == mXfers.rend()) {
      return false;
    }
    cancelled = *found;
    mXfers.erase(std::next(found).base());
  }
  FailXfer(cancelled, kXferCancelled);
  return true;
}

void PendingXfers::CancelAll() {
  std::vector<_UsbIoXferInfo*> cancelled;
  {
    const MutexLock lock(mMutex);
    cancelled.swap(mXfers);
  }
  for (_UsbIoXferInfo* info : cancelled) {
    FailXfer(info, kXferCancelled);
  }
}

}  // namespace vel
