#ifndef VEL_IO_DUMMY_USB_IO_UVC_STREAM_CONTEXT_H
#define VEL_IO_DUMMY_USB_IO_UVC_STREAM_CONTEXT_H

#include <cstdint>
#include <functional>
#include <span>

#include "base/LockOrder.h"
#include "io/UsbIoXferInfo.h"

namespace vel {

// The one transfer that waits for a picture. Owns it until it is completed: with a picture, or as cancelled when it is
// replaced, withdrawn or left over. Any thread; completes with no lock held.
class UvcStreamContext {
 public:
  UvcStreamContext() = default;
  UvcStreamContext(const UvcStreamContext&) = delete;
  UvcStreamContext& operator=(const UvcStreamContext&) = delete;
  ~UvcStreamContext() { Close(); }

  // Until then, and after Close, every transfer is completed as cancelled at once.
  void Open() VEL_EXCLUDES(mMutex);
  void Close() VEL_EXCLUDES(mMutex);

  // The transfer that waits from now on; null for none. `width` and `height` (pixels) are what it is to hold. False
  // when it does not wait: closed, or one of the remote side's where the module's own waits, which is not given up for
  // it but refuses it.
  bool SetPending(_UsbIoXferInfo* info, int width, int height) VEL_EXCLUDES(mMutex);
  // Cancels the pending transfer when it is the remote side's with this id, or the module's with this callback.
  void Cancel(std::uint32_t localXferId) VEL_EXCLUDES(mMutex);
  bool CancelOwn(const UsbIoTransferCallback* callback) VEL_EXCLUDES(mMutex);

  // Completes the pending transfer with as much of the picture as its buffer takes. Without one, or when it is not the
  // one that `only` says, the picture is dropped. `only` may be stale: it is compared, and not followed.
  void Deliver(std::span<const std::uint8_t> picture) VEL_EXCLUDES(mMutex);
  void Deliver(std::span<const std::uint8_t> picture, const void* only) VEL_EXCLUDES(mMutex);

  struct FrameSize {
    int width;
    int height;
  };
  // Of the latest transfer.
  FrameSize Size() const VEL_EXCLUDES(mMutex);

 private:
  bool CancelIf(const std::function<bool(const _UsbIoXferInfo&)>& meant) VEL_EXCLUDES(mMutex);
  static void Complete(_UsbIoXferInfo* info, std::span<const std::uint8_t> picture);

  mutable Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  _UsbIoXferInfo* mPending VEL_GUARDED_BY(mMutex) = nullptr;
  FrameSize mSize VEL_GUARDED_BY(mMutex){};
  bool mOpen VEL_GUARDED_BY(mMutex) = false;
};

}  // namespace vel

#endif
