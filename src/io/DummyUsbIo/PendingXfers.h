#ifndef VEL_IO_DUMMY_USB_IO_PENDING_XFERS_H
#define VEL_IO_DUMMY_USB_IO_PENDING_XFERS_H

#include <cstdint>
#include <functional>
#include <vector>

#include "base/LockOrder.h"
#include "io/UsbIoXferInfo.h"

namespace vel {

// Transfers of an emulated endpoint that has nothing to say. Owns them until they are cancelled. Any thread; completes
// with no lock held.
class PendingXfers {
 public:
  PendingXfers() = default;
  PendingXfers(const PendingXfers&) = delete;
  PendingXfers& operator=(const PendingXfers&) = delete;
  ~PendingXfers() { CancelAll(); }

  // False without memory: the record stays the caller's.
  bool Add(_UsbIoXferInfo* info) noexcept;
  // Completes the latest transfer with this id as cancelled. False when there is none.
  bool Cancel(std::uint32_t localXferId);
  // The same of the module's own transfers that complete to `callback`, all of them. How many those were.
  int CancelOwn(const UsbIoTransferCallback* callback);
  void CancelAll();

 private:
  bool CancelLatest(const std::function<bool(const _UsbIoXferInfo&)>& meant);

  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  std::vector<_UsbIoXferInfo*> mXfers VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
