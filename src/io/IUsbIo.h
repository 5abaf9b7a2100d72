#ifndef VEL_IO_I_USB_IO_H
#define VEL_IO_I_USB_IO_H

#include <cstdint>

#include <libusb-1.0/libusb.h>

#include "io/UsbIoXferInfo.h"

namespace vel {

// One redirected device, whatever is behind it. The order of the virtual operations is a binary interface.
//
// Results are libusb's: 0 or a byte count, or a LIBUSB_ERROR_* value; a backend whose device is not open answers
// LIBUSB_ERROR_NOT_FOUND, and 0 or null where a value or a pointer is asked for. Descriptors stay the backend's and
// remain valid until it is closed or destroyed.
//
// Loop thread for everything, but for Stop of a session: AttachKernelDriver, ResetDevice, CloseUsbDev and the
// destructor may come from another thread while an operation runs. A synchronous operation then returns soon with an
// error.
//
// Bulk, interrupt and isochronous transfers return as soon as they are queued. Every record that is passed in is
// completed exactly once (UsbIoXferInfo.h), also when it cannot be submitted: then with status 1, before the negative
// result is returned. A null record is a legal call that does nothing.
class IUsbIo {
 public:
  IUsbIo() = default;
  IUsbIo(const IUsbIo&) = delete;
  IUsbIo& operator=(const IUsbIo&) = delete;
  // Closes the device; no completion comes after it.
  virtual ~IUsbIo() = default;

  virtual void* GetIoHandler() = 0;
  virtual void* SetIoHandler(void* /*handle*/) { return nullptr; }
  virtual std::uint8_t GetIoType() = 0;  // 1: emulated, 2: libusb.
  virtual std::uint32_t GetIoCapability() { return 0; }
  virtual void Init() = 0;
  virtual int OpenUsbDev() = 0;
  // Cancels what is in flight and returns when every record has been completed.
  virtual int CloseUsbDev() = 0;
  virtual std::uint8_t GetDevicePortNumber() = 0;
  virtual libusb_device_descriptor* GetDeviceDesc() = 0;
  virtual libusb_config_descriptor* GetConfigDesc() = 0;
  virtual std::uint8_t GetBusNumber() = 0;
  virtual std::uint8_t GetDeviceAddress() = 0;
  virtual std::uint8_t GetDeviceSpeed() = 0;  // enum libusb_speed
  // Bytes written (at most `length`) or a negative status.
  virtual int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) = 0;
  virtual int ResetDevice() = 0;
  virtual int AttachKernelDriver() = 0;
  virtual int DetachKernelDriver() = 0;
  virtual int ClearHalt(int endpoint) = 0;
  virtual int ReleaseAllInterface() = 0;
  virtual int SetConfiguration(int configuration) = 0;
  virtual int ClaimAllInterface() = 0;
  virtual int SetInterfaceAltSetting(int interfaceNumber, int altSetting) = 0;
  // Of the remote side's transfers (kRemoteIds), one with this id. Its completion still arrives, as cancelled unless it
  // was faster, whatever has become of the backend's own threads; it may run on the caller's, within this call.
  virtual int CancelTransfer(std::uint32_t localXferId) = 0;
  // Bytes transferred (at most `wLength`) or a negative status. Blocks for at most `timeout` milliseconds (0: without
  // limit).
  virtual int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue,
                              std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength,
                              std::uint32_t timeout) = 0;
  virtual int BulkTransfer(_UsbIoXferInfo* info) = 0;
  virtual int InterruptTransfer(_UsbIoXferInfo* info) = 0;
  virtual int IsochTransfer(_UsbIoXferInfo* info) = 0;

  // Cancels the module's own transfers (kModuleIds) that complete to `callback`, all of them and no other; their
  // completions arrive as after CancelTransfer. Returns how many it cancelled. Any thread, also within a completion.
  virtual int CancelOwnTransfers(const UsbIoTransferCallback* callback) = 0;

  // The device is about to be given back for good: an OpenUsbDev that runs returns soon, and every later one at once,
  // as failed unless it was faster. Any thread; does not wait.
  virtual void CancelOpen() {}

  // Whether the data of a bulk or interrupt record may lie within another block: the backend changes it by
  // ReplaceXferData and FailXfer alone.
  virtual bool LeavesDataInPlace() const { return false; }
};

inline constexpr std::uint8_t kIoTypeEmulated = 1;
inline constexpr std::uint8_t kIoTypeLibusb = 2;

}  // namespace vel

#endif
