#include "io/LibusbControl.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace vel {
namespace {

struct SyncTransfer {
  SyncTransfer(LibusbHandle& handle, LibusbTransferPtr transfer, std::unique_ptr<std::uint8_t[]> bytes)
      : owner(handle), buffer(std::move(bytes)), pending(std::move(transfer), LibusbPendingTransfer::kSyncKey) {}

  LibusbHandle& owner;
  const std::unique_ptr<std::uint8_t[]> buffer;
  LibusbPendingTransfer pending;
};

void LIBUSB_CALL ControlDone(libusb_transfer* transfer) {
  auto* control = static_cast<SyncTransfer*>(transfer->user_data);
  if (control->owner.CompleteSync(control->pending)) {
    delete control;
  }
}

int ToError(libusb_transfer_status status) {
  switch (status) {
    case LIBUSB_TRANSFER_COMPLETED:
      return LIBUSB_SUCCESS;
    case LIBUSB_TRANSFER_TIMED_OUT:
      return LIBUSB_ERROR_TIMEOUT;
    case LIBUSB_TRANSFER_STALL:
      return LIBUSB_ERROR_PIPE;
    case LIBUSB_TRANSFER_NO_DEVICE:
      return LIBUSB_ERROR_NO_DEVICE;
    case LIBUSB_TRANSFER_OVERFLOW:
      return LIBUSB_ERROR_OVERFLOW;
    case LIBUSB_TRANSFER_ERROR:
    case LIBUSB_TRANSFER_CANCELLED:
      return LIBUSB_ERROR_IO;
  }
  return LIBUSB_ERROR_OTHER;
}

}  // namespace

int LibusbControl(LibusbHandle& owner, libusb_device_handle* handle, const LibusbControlRequest& request,
                  std::uint8_t* data) {
  if (data == nullptr && request.wLength > 0) {
    return LIBUSB_ERROR_INVALID_PARAM;
  }
  const bool isIn = (request.bmRequestType & LIBUSB_ENDPOINT_IN) != 0;
  LibusbTransferPtr transfer(libusb_alloc_transfer(0));
  std::unique_ptr<std::uint8_t[]> buffer(new (std::nothrow)
                                             std::uint8_t[LIBUSB_CONTROL_SETUP_SIZE + std::size_t{request.wLength}]);
  if (transfer == nullptr || buffer == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  libusb_fill_control_setup(buffer.get(), request.bmRequestType, request.bRequest, request.wValue, request.wIndex,
                            request.wLength);
  if (!isIn && request.wLength > 0) {
    std::memcpy(buffer.get() + LIBUSB_CONTROL_SETUP_SIZE, data, request.wLength);
  }
  std::unique_ptr<SyncTransfer> control(new (std::nothrow) SyncTransfer(owner, std::move(transfer), std::move(buffer)));
  if (control == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  libusb_transfer& filled = *control->pending.transfer;
  libusb_fill_control_transfer(&filled, handle, control->buffer.get(), ControlDone, control.get(), request.timeout);
  const int submitted = owner.Submit(control->pending);
  if (submitted < 0) {
    return submitted;
  }
  if (!owner.AwaitSync(control->pending)) {
    static_cast<void>(control.release());  // Its completion frees it.
    return LIBUSB_ERROR_IO;
  }
  const int error = ToError(filled.status);
  if (error != LIBUSB_SUCCESS) {
    return error;
  }
  const int moved = std::clamp<int>(filled.actual_length, 0, request.wLength);
  if (isIn && moved > 0) {
    std::memcpy(data, control->buffer.get() + LIBUSB_CONTROL_SETUP_SIZE, static_cast<std::size_t>(moved));
  }
  return moved;
}

}  // namespace vel
