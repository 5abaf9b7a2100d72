#ifndef VEL_IO_LIBUSB_TRANSFER_H
#define VEL_IO_LIBUSB_TRANSFER_H

#include <cstdint>
#include <memory>

#include "base/HeapBlock.h"
#include "io/LibusbHandle.h"
#include "io/UsbIoXferInfo.h"

namespace vel {

// A transfer record on its way through libusb. Made by a submission, freed by its completion.
//
// An isochronous transfer has a buffer of its own. The request's block stays with the record until the completion
// replaces it, so that the record is whole whenever a submission fails, and an early completion finds it settled.
class LibusbTransfer {
 public:
  // Whether the record of a transfer that fails holds what had been moved by then.
  enum class Failed : bool { kHoldsNothing, kHoldsPart };

  // Submits `info` as `type` (bulk or interrupt). Called with a LibusbUse held, of which `handle` is. On success the
  // record belongs to its completion and may be gone; after a failure it is as it was, and the caller completes it.
  static int Submit(LibusbHandle& owner, libusb_device_handle* handle, _UsbIoXferInfo& info, libusb_transfer_type type,
                    Failed failed);
  // The same for an isochronous record. LIBUSB_ERROR_INVALID_PARAM when the packet table does not fit the record's
  // data, or the packets do not (OUT) or are absurd (IN).
  static int SubmitIso(LibusbHandle& owner, libusb_device_handle* handle, _UsbIoXferInfo& info, Failed failed);

 private:
  LibusbTransfer(LibusbHandle& owner, _UsbIoXferInfo& info, LibusbTransferPtr transfer, HeapBlock isoBuffer,
                 Failed failed);

  static int Submit(std::unique_ptr<LibusbTransfer> self);
  static void LIBUSB_CALL FuncAsyncTransferCB(libusb_transfer* transfer);
  void Complete();
  bool TakeResult();
  void TakeIsoOut(std::uint32_t moved);
  bool TakeIsoIn();

  LibusbHandle& mOwner;
  _UsbIoXferInfo* const mInfo;
  HeapBlock mIsoBuffer;
  const Failed mFailed;
  LibusbPendingTransfer mPending;
};

}  // namespace vel

#endif
