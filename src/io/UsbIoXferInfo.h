// The record of one asynchronous transfer, its completion interface, and who may do what with it.
//
// The submitter (VirtUDevice, or the camera policy for its own reads) allocates the record, `reqBuf`, `data` and
// `isoDescCopy` with malloc. A backend never frees the record; it may replace `data` with another malloc block or set
// it to null, and then frees the block that was there. The completion frees what is left.
#ifndef VEL_IO_USB_IO_XFER_INFO_H
#define VEL_IO_USB_IO_XFER_INFO_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace vel {

class IUsbIo;
class VelPacket;
struct _UsbIoXferInfo;

class UsbIoTransferCallback {
 public:
  // Takes the record over. Completion thread of the backend, or the submitter's own thread during the submission;
  // called with no lock held; must not block.
  virtual void UsbIoXferCb(_UsbIoXferInfo* info) = 0;
  virtual ~UsbIoTransferCallback() = default;

 protected:
  UsbIoTransferCallback() = default;
  UsbIoTransferCallback(const UsbIoTransferCallback&) = default;
  UsbIoTransferCallback& operator=(const UsbIoTransferCallback&) = default;
};

// Transfer types in libusb's numbering (libusb_transfer_type).
enum XferType : std::uint32_t {
  kXferControl = 0,
  kXferIsochronous = 1,
  kXferBulk = 2,
  kXferInterrupt = 3,
};

// Results in libusb's numbering (libusb_transfer_status).
enum XferStatus : std::int32_t {
  kXferCompleted = 0,
  kXferError = 1,  // Also: could not be submitted.
  kXferTimedOut = 2,
  kXferCancelled = 3,
};

// Whose id a record's localXferId is. The remote side chooses its ids among all 32-bit numbers, so the module's own
// transfers need a space beside them.
enum XferIdSpace : std::uint32_t {
  kRemoteIds = 0,  // IUsbIo::CancelTransfer finds it.
  kModuleIds = 1,  // Only IUsbIo::CancelOwnTransfers finds it, by its callback; localXferId is for the log.
};

// Beside the id space in `reserved`, written by a backend: the transfer failed, and its data is what had been moved by
// then, where the device-base object asks for that. A failed transfer has no data otherwise.
inline constexpr std::uint32_t kXferHoldsPart = 2;

// Also beside the id space, written by MakePacketXfer: `reqBuf` lies in the record's block; `data` lies in a packet.
inline constexpr std::uint32_t kXferHoldsContext = 4;
inline constexpr std::uint32_t kXferDataInPacket = 8;

struct _UsbIoXferInfo {
  std::uint32_t reserved;  // XferIdSpace and the flags above.
  std::uint32_t xferType;
  std::uint32_t streamId;     // Of the remote request that this transfer answers.
  std::uint32_t localXferId;  // What CancelTransfer looks for.
  std::uint8_t epAddr;
  std::int32_t status;
  std::uint32_t isoPacketNum;
  void* reqBuf;          // The reply context; may be null.
  std::uint32_t length;  // In: bytes to transfer. Out: bytes in `data`.
  std::uint8_t* data;    // Null on completion when the transfer failed, unless it holds a part.
  UsbIoTransferCallback* callback;
  std::uint32_t isoDescLen;
  void* isoDescCopy;  // The request's packet table, kept for the libusb backend.
  IUsbIo* owner;      // Written by the backend at submission.
};

static_assert(sizeof(void*) != 8 || sizeof(_UsbIoXferInfo) == 88);
static_assert(sizeof(void*) != 8 || offsetof(_UsbIoXferInfo, reqBuf) == 32);
static_assert(sizeof(void*) != 8 || offsetof(_UsbIoXferInfo, data) == 48);
static_assert(sizeof(void*) != 8 || offsetof(_UsbIoXferInfo, owner) == 80);

// The space of the record's id.
constexpr XferIdSpace IdSpace(const _UsbIoXferInfo& info) {
  return (info.reserved & kModuleIds) != 0 ? kModuleIds : kRemoteIds;
}

// Whether a CancelTransfer(id) means this record.
constexpr bool HasRemoteId(const _UsbIoXferInfo& info, std::uint32_t id) {
  return IdSpace(info) == kRemoteIds && info.localXferId == id;
}

// Whether a CancelOwnTransfers(callback) means this record.
constexpr bool IsOwnOf(const _UsbIoXferInfo& info, const UsbIoTransferCallback* callback) {
  return IdSpace(info) == kModuleIds && info.callback == callback;
}

constexpr bool IsIn(const _UsbIoXferInfo& info) {
  return (info.epAddr & 0x80U) != 0;
}

// Replaces the record's data by another malloc block (or null) and frees the one before.
void ReplaceXferData(_UsbIoXferInfo& info, std::uint8_t* data, std::uint32_t length);

// Gives the record to its callback. The record may be gone when this returns. A record without callback is freed, so
// that none is lost. What the callback throws (it had no memory) ends here with a log line: completions run inside
// libusb's C code and in destructors.
void CompleteXfer(_UsbIoXferInfo* info) noexcept;

// Completes a transfer that failed at the device: the status, no data.
void FailXfer(_UsbIoXferInfo* info, std::int32_t status) noexcept;

// Frees the record with everything that it owns, without a completion.
void FreeXfer(_UsbIoXferInfo* info);

struct XferDeleter {
  void operator()(_UsbIoXferInfo* info) const { FreeXfer(info); }
};
// A record that was not submitted yet.
using XferPtr = std::unique_ptr<_UsbIoXferInfo, XferDeleter>;

// A zeroed record, or null when there is no memory.
XferPtr MakeXfer();

// A zeroed record in one malloc block with what else lives as long as it: `contextBytes` for its maker to fill, to
// which `reqBuf` points, and the packet in which the `length` bytes at `data` lie; where `packet` is null, these are a
// malloc block. It owns packet and data. `spent`, a packet that is not needed any more or null, may give its memory for
// the block. Null without memory: then nothing was taken over.
XferPtr MakePacketXfer(std::size_t contextBytes, std::unique_ptr<VelPacket>& packet, std::uint8_t* data,
                       std::uint32_t length, std::unique_ptr<VelPacket>& spent);

// The packet in which the record's data lies; null when it lies in none. Taken, the record has no data any more.
VelPacket* DataPacket(_UsbIoXferInfo& info);
std::unique_ptr<VelPacket> TakeDataPacket(_UsbIoXferInfo& info);

// Exactly one completion for a record that was passed to a backend: unless it is released to whoever completes it
// later, the record is completed as "could not be submitted" (status 1, data as it is).
class XferGuard {
 public:
  explicit XferGuard(_UsbIoXferInfo* info) : mInfo(info) {}
  XferGuard(const XferGuard&) = delete;
  XferGuard& operator=(const XferGuard&) = delete;
  ~XferGuard() {
    if (mInfo != nullptr) {
      mInfo->status = kXferError;
      CompleteXfer(mInfo);
    }
  }
  [[nodiscard]] _UsbIoXferInfo* Release() { return std::exchange(mInfo, nullptr); }

 private:
  _UsbIoXferInfo* mInfo;
};

}  // namespace vel

#endif
