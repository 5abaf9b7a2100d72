#include "io/LibusbIo.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "base/VelLog.h"
#include "io/LibusbControl.h"

namespace vel {
namespace {

constexpr std::uint32_t kStringTimeout = 1000;

// Requests that libusb has calls of its own for, since it has to know of their effect.
constexpr std::uint8_t kHubPortOut = 0x23;
constexpr std::uint16_t kPortResetFeature = 4;

bool IsPortReset(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue) {
  return bmRequestType == kHubPortOut && bRequest == LIBUSB_REQUEST_SET_FEATURE && (wValue & kPortResetFeature) != 0;
}

bool IsClearHalt(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue) {
  return bmRequestType == LIBUSB_RECIPIENT_ENDPOINT && bRequest == LIBUSB_REQUEST_CLEAR_FEATURE && wValue == 0;
}

const LibusbEndpoints kAllEndpoints = LibusbEndpoints().set();

// Whether there is a device, or an open one. Where there is none, a log line says so, by `name` where the text has
// another one than the function.
bool IsThere(const void* device, const char* function, const char* name = nullptr, int line = __builtin_LINE()) {
  if (device == nullptr) {
    VEL_LOG_LINE(OSKELO_LOG_ERROR, function, line, "Error:%s failed LIBUSB_ERROR_NOT_FOUND\n",
                 name == nullptr ? function : name);
  }
  return device != nullptr;
}

void KeepFirstFailure(int& first, int result) {
  if (first == LIBUSB_SUCCESS) {
    first = std::min(result, 0);
  }
}

}  // namespace

LibusbIo::LibusbIo(VelDeviceBase* device) : mDeviceBase(device), mHandle(mContext) {}

LibusbIo::~LibusbIo() {
  mHandle.Close();
  mContext.StopThread();
  VEL_DEBUG("mLibusbEventThread exit\n");
}

void* LibusbIo::GetIoHandler() {
  return mHandle.Get();
}

std::uint8_t LibusbIo::GetIoType() {
  return kIoTypeLibusb;
}

void LibusbIo::Init() {
  VEL_DEBUG(" enter");
  if (mContext.Get() != nullptr) {
    return;
  }
  if (mContext.Create() != LIBUSB_SUCCESS) {
    VEL_ERROR("initialize libusb failed\n");
    return;
  }
  GetLibusbDev();
}

void LibusbIo::GetLibusbDev() {
  libusb_device** devices = nullptr;
  const auto count = libusb_get_device_list(mContext.Get(), &devices);
  const LibusbDeviceListPtr list(count < 0 ? nullptr : devices);
  if (!mContext.StartThread([this] { mHandle.EventThreadEnded(); })) {
    VEL_WARN("Starting LibusbEventHandler failed\n");
  }
  const auto found = static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  if (!mDevice.Find({list.get(), found}, mDeviceBase->GetBusNumber(), mDeviceBase->GetDeviceAddress())) {
    VEL_ERROR("GetLibusbDev failed\n");
    return;
  }
  VEL_DEBUG("device[%p]\n", static_cast<void*>(mDevice.Get()));
}

int LibusbIo::OpenUsbDev() {
  VEL_DEBUG("OpenUsbDev");
  if (!IsThere(mDevice.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  const int result = mHandle.Open(mDevice.Get());
  if (result != LIBUSB_SUCCESS) {
    VEL_ERROR(
        "libusb_open error: %i - %s "
        "[bus=0x%02X,port=0x%02X,address=0x%02X,VID=0x%04X,PID=0x%04X]",
        result, libusb_error_name(result), unsigned{mDeviceBase->GetBusNumber()},
        unsigned{libusb_get_port_number(mDevice.Get())}, unsigned{mDeviceBase->GetDeviceAddress()},
        unsigned{mDeviceBase->GetVendorId()}, unsigned{mDeviceBase->GetProductId()});
  } else if (mFoundConfiguration == 0) {
    mFoundConfiguration = Configuration();
  }
  return result;
}

// The value of the active configuration; 0 when there is none, or it is not known.
int LibusbIo::Configuration() {
  const LibusbUse use(mHandle);
  int value = 0;
  return use.Get() != nullptr && libusb_get_configuration(use.Get(), &value) == LIBUSB_SUCCESS ? value : 0;
}

int LibusbIo::CloseUsbDev() {
  VEL_DEBUG("enter\n");
  const int result = mHandle.Close();
  if (result != LIBUSB_SUCCESS) {
    libusb_device* const device = mDevice.Get();
    VEL_ERROR(
        "CloseUsbDev "
        "[bus=0x%02X,port=0x%02X,address=0x%02X,VID=0x%04X,PID=0x%04X]",
        unsigned{mDeviceBase->GetBusNumber()}, device == nullptr ? 0U : unsigned{libusb_get_port_number(device)},
        unsigned{mDeviceBase->GetDeviceAddress()}, unsigned{mDeviceBase->GetVendorId()},
        unsigned{mDeviceBase->GetProductId()});
  }
  VEL_DEBUG("exit\n");
  return result;
}

std::uint8_t LibusbIo::GetDevicePortNumber() {
  return IsThere(mDevice.Get(), __func__) ? libusb_get_port_number(mDevice.Get()) : std::uint8_t{0};
}

libusb_device_descriptor* LibusbIo::GetDeviceDesc() {
  if (!IsThere(mDevice.Get(), __func__, "GetDevDescript")) {
    return nullptr;
  }
  libusb_device_descriptor* descriptor = nullptr;
  const int result = mDevice.ReadDescriptor(&descriptor);
  if (result < 0) {
    VEL_ERROR("libusb_get_device_descriptor: error %s [%d]", libusb_error_name(result), result);
  }
  return descriptor;
}

libusb_config_descriptor* LibusbIo::GetConfigDesc() {
  if (!IsThere(mDevice.Get(), __func__, "GetDeviceconfig")) {
    return nullptr;
  }
  libusb_config_descriptor* config = nullptr;
  const int result = mDevice.ReadConfig(&config);
  if (result < 0) {
    VEL_ERROR("GetDeviceconfig: error %s [%d]", libusb_error_name(result), result);
  }
  return config;
}

std::uint8_t LibusbIo::GetBusNumber() {
  return IsThere(mDevice.Get(), __func__) ? libusb_get_bus_number(mDevice.Get()) : std::uint8_t{0};
}

std::uint8_t LibusbIo::GetDeviceAddress() {
  return IsThere(mDevice.Get(), __func__) ? libusb_get_device_address(mDevice.Get()) : std::uint8_t{0};
}

std::uint8_t LibusbIo::GetDeviceSpeed() {
  return IsThere(mDevice.Get(), __func__) ? static_cast<std::uint8_t>(libusb_get_device_speed(mDevice.Get()))
                                          : std::uint8_t{0};
}

int LibusbIo::GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  const LibusbControlRequest request{
      .bmRequestType = LIBUSB_ENDPOINT_IN,
      .bRequest = LIBUSB_REQUEST_GET_DESCRIPTOR,
      .wValue = static_cast<std::uint16_t>((LIBUSB_DT_STRING << 8U) | index),
      .wIndex = langId,
      .wLength = static_cast<std::uint16_t>(std::clamp(length, 0, int{UINT16_MAX})),
      .timeout = kStringTimeout,
  };
  return LibusbControl(mHandle, use.Get(), request, buffer);
}

int LibusbIo::ResetDevice() {
  VEL_DEBUG("enter\n");
  const LibusbUse use(mHandle);
  int result = LIBUSB_ERROR_NOT_FOUND;
  if (use.Get() != nullptr) {
    const LibusbSubmitBarrier barrier(mHandle, kAllEndpoints);
    result = libusb_reset_device(use.Get());
    if (result < 0) {
      VEL_ERROR("libusb_reset_device: error %s [%d]", libusb_error_name(result), result);
    }
  }
  VEL_DEBUG("exit\n");
  return result;
}

int LibusbIo::AttachKernelDriver() {
  VEL_DEBUG("enter\n");
  const LibusbUse use(mHandle);
  int result = LIBUSB_ERROR_NOT_FOUND;
  if (use.Get() != nullptr) {
    LibusbInterfaces interfaces = mDevice.ReadInterfaces();
    result = interfaces.result;
    const LibusbSubmitBarrier barrier(mHandle, kAllEndpoints);
    // All are released before the first is attached: a driver may want several of them (cdc_acm does).
    for (const int number : interfaces.All()) {
      const int released = libusb_release_interface(use.Get(), number);
      if (released < 0) {
        VEL_ERROR("libusb_release_interface: error num %d = %d", number, released);
      }
    }
    const int found = mFoundConfiguration;
    if (found != 0 && found != Configuration()) {
      const int restored = libusb_set_configuration(use.Get(), found);
      if (restored < 0) {
        VEL_ERROR("libusb_set_configuration %d = %d", found, restored);
      }
      KeepFirstFailure(result, restored);
      interfaces = mDevice.ReadInterfaces();
    }
    for (const int number : interfaces.All()) {
      int attached = libusb_attach_kernel_driver(use.Get(), number);
      if (attached == LIBUSB_ERROR_BUSY && libusb_kernel_driver_active(use.Get(), number) == 1) {
        attached = LIBUSB_SUCCESS;  // The driver of an earlier interface has taken this one too.
      }
      if (attached < 0) {
        VEL_ERROR("libusb_attach_kernel_driver if%d = %d", number, attached);
      }
      KeepFirstFailure(result, attached);
    }
  }
  VEL_DEBUG("exit\n");
  return result;
}

int LibusbIo::DetachKernelDriver() {
  const LibusbUse use(mHandle);
  if (use.Get() == nullptr) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  const LibusbInterfaces interfaces = mDevice.ReadInterfaces();
  int first = interfaces.result;
  for (const int number : interfaces.All()) {
    int result = libusb_kernel_driver_active(use.Get(), number);
    VEL_DEBUG("libusb_kernel_driver_active = %s [%d]", libusb_error_name(result), result);
    if (result > 0) {
      result = libusb_detach_kernel_driver(use.Get(), number);
      if (result < 0) {
        VEL_ERROR("libusb_detach_kernel_driver = %s [%d]", libusb_error_name(result), result);
      }
    }
    KeepFirstFailure(first, result);
  }
  return first;
}

int LibusbIo::ClearHalt(int endpoint) {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  return libusb_clear_halt(use.Get(), static_cast<unsigned char>(endpoint));
}

int LibusbIo::ReleaseAllInterface() {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  const LibusbSubmitBarrier barrier(mHandle, kAllEndpoints);
  const LibusbInterfaces interfaces = mDevice.ReadInterfaces();
  int first = interfaces.result;
  for (const int number : interfaces.All()) {
    const int result = libusb_release_interface(use.Get(), number);
    if (result < 0) {
      VEL_ERROR("config_release_all_interface: error num %d", result);
    }
    KeepFirstFailure(first, result);
  }
  return first;
}

int LibusbIo::SetConfiguration(int configuration) {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  return libusb_set_configuration(use.Get(), configuration);
}

int LibusbIo::ClaimAllInterface() {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  const LibusbInterfaces interfaces = mDevice.ReadInterfaces();
  int first = interfaces.result;
  for (const int number : interfaces.All()) {
    const int result = libusb_claim_interface(use.Get(), number);
    if (result < 0) {
      VEL_ERROR("claim_all_interface: error num %d", result);
    }
    KeepFirstFailure(first, result);
  }
  return first;
}

int LibusbIo::SetInterfaceAltSetting(int interfaceNumber, int altSetting) {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  const LibusbSubmitBarrier barrier(mHandle,
                                    mHandle.IsBusy() ? mDevice.ReadEndpoints(interfaceNumber) : LibusbEndpoints());
  // libusb up to 1.0.26 unlocks a lock that it does not hold when this is asked of a device that is gone, and then
  // aborts the process when it is closed. This asks first, for nothing else.
  int result = libusb_kernel_driver_active(use.Get(), interfaceNumber);
  if (result != LIBUSB_ERROR_NO_DEVICE) {
    result = libusb_set_interface_alt_setting(use.Get(), interfaceNumber, altSetting);
  }
  if (result < 0) {
    VEL_ERROR("Set interface altsetting get error num %d", result);
  }
  return result;
}

int LibusbIo::CancelTransfer(std::uint32_t localXferId) {
  bool known = false;
  const int result = mHandle.Cancel(localXferId, &known);
  mHandle.DeliverCancelled();
  if (!known) {
    VEL_ERROR("unknown Transfer localXferId[%d]", static_cast<int>(localXferId));
  } else if (result < 0) {
    VEL_ERROR("libusb_cancel_transfer: error num %s [%d]", libusb_error_name(result), result);
  }
  return result;
}

int LibusbIo::CancelOwnTransfers(const UsbIoTransferCallback* callback) {
  const int count = mHandle.CancelGroup(callback);
  mHandle.DeliverCancelled();
  return count;
}

int LibusbIo::ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                              std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) {
  const LibusbUse use(mHandle);
  if (!IsThere(use.Get(), __func__)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  if (IsPortReset(bmRequestType, bRequest, wValue)) {
    VEL_DEBUG("ResetDevice");
    return ResetDevice();
  }
  if (IsClearHalt(bmRequestType, bRequest, wValue)) {
    VEL_DEBUG("libusb_clear_halt");
    return libusb_clear_halt(use.Get(), static_cast<unsigned char>(wIndex & 0xFFU));
  }
  const int result = LibusbControl(mHandle, use.Get(),
                                   {.bmRequestType = bmRequestType,
                                    .bRequest = bRequest,
                                    .wValue = wValue,
                                    .wIndex = wIndex,
                                    .wLength = wLength,
                                    .timeout = timeout},
                                   data);
  if (result < 0) {
    VEL_ERROR("libusb_control_transfer get error num %d", result);
  }
  return result;
}

// Only who answers failures has a use for the part, and the module's own reads take whole transfers.
LibusbTransfer::Failed LibusbIo::FailedHolds(const _UsbIoXferInfo& info) const {
  return IdSpace(info) == kRemoteIds && mDeviceBase->AnswersFailedTransfers() ? LibusbTransfer::Failed::kHoldsPart
                                                                              : LibusbTransfer::Failed::kHoldsNothing;
}

// In the two below the use is older than the guard: a close waits for the completion of a failed submission too.

int LibusbIo::SubmitBulkLike(_UsbIoXferInfo* info, libusb_transfer_type type, const char* operation,
                             const char* typeName) {
  if (info == nullptr) {
    return LIBUSB_SUCCESS;
  }
  const LibusbUse use(mHandle);
  XferGuard completion(info);
  if (!IsThere(use.Get(), operation)) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  VEL_LOG_LINE(OSKELO_LOG_DEBUG, operation, __LINE__, "Debug:%s streamid[%d] epaddr[%d] len[%d]", operation,
               static_cast<int>(info->streamId), int{info->epAddr}, static_cast<int>(info->length));
  info->owner = this;
  const int result = LibusbTransfer::Submit(mHandle, use.Get(), *info, type, FailedHolds(*info));
  if (result < 0) {
    std::printf("Error submitting %s transfer, %d", typeName, result);
    return result;
  }
  static_cast<void>(completion.Release());
  VEL_LOG_LINE(OSKELO_LOG_DEBUG, operation, __LINE__, "Debug:%s finished ret[%d]", operation, result);
  return result;
}

int LibusbIo::BulkTransfer(_UsbIoXferInfo* info) {
  return SubmitBulkLike(info, LIBUSB_TRANSFER_TYPE_BULK, __func__, "bulk");
}

int LibusbIo::InterruptTransfer(_UsbIoXferInfo* info) {
  return SubmitBulkLike(info, LIBUSB_TRANSFER_TYPE_INTERRUPT, __func__, "interrupt");
}

int LibusbIo::IsochTransfer(_UsbIoXferInfo* info) {
  if (info == nullptr) {
    return LIBUSB_SUCCESS;
  }
  const LibusbUse use(mHandle);
  XferGuard completion(info);
  if (!IsThere(use.Get(), __func__, "IsoTransfer")) {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  VEL_DEBUG("IsoTransfer streamid[0x%x] epaddr[0x%x] len[%d] isonum[%d]", info->streamId, unsigned{info->epAddr},
            static_cast<int>(info->length), static_cast<int>(info->isoPacketNum));
  info->owner = this;
  const int result = LibusbTransfer::SubmitIso(mHandle, use.Get(), *info, FailedHolds(*info));
  if (result < 0) {
    VEL_ERROR("Error submitting iso transfer, %d", result);
    return result;
  }
  static_cast<void>(completion.Release());
  return result;
}

}  // namespace vel
