#ifndef VEL_IO_LIBUSB_IO_H
#define VEL_IO_LIBUSB_IO_H

#include <atomic>
#include <cstdint>

#include "io/IUsbIo.h"
#include "io/LibusbContext.h"
#include "io/LibusbDevice.h"
#include "io/LibusbHandle.h"
#include "io/LibusbTransfer.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// A real device of this machine, through libusb.
//
// Threads: operations come from the loop thread; AttachKernelDriver, ResetDevice, CloseUsbDev and the destructor may
// come from another one meanwhile. Records are completed on the event thread, those that cannot be submitted on the
// caller's, with no lock held. A completion may submit and cancel; it must not close or destroy the backend, nor make a
// synchronous transfer.
//
// Without an event thread (it could not be started, or libusb reported an error to it) transfers are still accepted:
// whoever then waits, in ControlTransfer, GetStringDescriptor or CloseUsbDev, or cancels, handles libusb's events
// itself, and completions run on that thread: a cancel returns when they have. When libusb refuses to handle events
// even so, a synchronous transfer ends with LIBUSB_ERROR_IO, a close gives the records back as cancelled after closing
// the handle, and a cancel closes the device. So whoever waits for completions only has to cancel or close.
//
// ControlTransfer and GetStringDescriptor are asynchronous transfers underneath. A close ends them: they then return
// LIBUSB_ERROR_IO, and the handle is closed only when they are through, and every other operation too.
class LibusbIo : public IUsbIo {
 public:
  // `device` outlives the backend; not null.
  explicit LibusbIo(VelDeviceBase* device);
  // Closes the device, ends the event thread, leaves libusb.
  ~LibusbIo() override;

  // The libusb_device_handle*, null while closed. Valid until CloseUsbDev.
  void* GetIoHandler() override;
  std::uint8_t GetIoType() override;
  // Finds the device and starts the event thread. A failure shows in the later operations; a second call does nothing.
  void Init() override;
  // Detaches and claims nothing. A device that is open already stays as it is.
  int OpenUsbDev() override;
  // Returns when every record has been completed and the handle is closed: milliseconds, unless a completion or an
  // operation that is under way takes longer.
  int CloseUsbDev() override;
  std::uint8_t GetDevicePortNumber() override;
  // Read anew into the one held descriptor by each call.
  libusb_device_descriptor* GetDeviceDesc() override;
  // Valid until the backend is destroyed.
  libusb_config_descriptor* GetConfigDesc() override;
  std::uint8_t GetBusNumber() override;
  std::uint8_t GetDeviceAddress() override;
  std::uint8_t GetDeviceSpeed() override;
  // Blocks for at most a second.
  int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) override;
  // Like the release of interfaces and, for its own endpoints, a new alternate setting, it ends the transfers in flight
  // as cancelled.
  int ResetDevice() override;
  // Releases all interfaces, goes back to the configuration that the first open found, and attaches the kernel's
  // drivers to all interfaces of that one.
  int AttachKernelDriver() override;
  // These go through all interfaces of the active configuration, also after a failure, and return the first
  // failure. A device without active configuration has no interfaces.
  int DetachKernelDriver() override;
  int ReleaseAllInterface() override;
  int ClaimAllInterface() override;
  int ClearHalt(int endpoint) override;
  int SetConfiguration(int configuration) override;
  int SetInterfaceAltSetting(int interfaceNumber, int altSetting) override;
  // The newest transfer with this id; LIBUSB_ERROR_NOT_FOUND when there is none or it was cancelled before.
  int CancelTransfer(std::uint32_t localXferId) override;
  int CancelOwnTransfers(const UsbIoTransferCallback* callback) override;
  int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) override;
  // A transfer that fails leaves its record without data or, where the device-base object wants failures answered, with
  // what had been moved by then (kXferHoldsPart).
  int BulkTransfer(_UsbIoXferInfo* info) override;
  int InterruptTransfer(_UsbIoXferInfo* info) override;
  int IsochTransfer(_UsbIoXferInfo* info) override;
  bool LeavesDataInPlace() const override { return true; }

 private:
  void GetLibusbDev();
  int Configuration();
  LibusbTransfer::Failed FailedHolds(const _UsbIoXferInfo& info) const;
  // A bulk or interrupt transfer; its names are for the log.
  int SubmitBulkLike(_UsbIoXferInfo* info, libusb_transfer_type type, const char* operation, const char* typeName);

  VelDeviceBase* const mDeviceBase;
  LibusbContext mContext;
  LibusbDevice mDevice;                      // Written by Init only.
  std::atomic<int> mFoundConfiguration = 0;  // At the first open; 0: none.
  LibusbHandle mHandle;
};

}  // namespace vel

#endif
