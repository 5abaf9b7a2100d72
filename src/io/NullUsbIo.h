#ifndef VEL_IO_NULL_USB_IO_H
#define VEL_IO_NULL_USB_IO_H

#include <cstdint>

#include "io/IUsbIo.h"

namespace vel {

// The backend of a device that could not get one: every operation gives the "not open" answer.
class NullUsbIo : public IUsbIo {
 public:
  void* GetIoHandler() override { return nullptr; }
  std::uint8_t GetIoType() override { return 0; }
  void Init() override {}
  int OpenUsbDev() override { return LIBUSB_ERROR_NOT_FOUND; }
  int CloseUsbDev() override { return LIBUSB_ERROR_NOT_FOUND; }
  std::uint8_t GetDevicePortNumber() override { return 0; }
  libusb_device_descriptor* GetDeviceDesc() override { return nullptr; }
  libusb_config_descriptor* GetConfigDesc() override { return nullptr; }
  std::uint8_t GetBusNumber() override { return 0; }
  std::uint8_t GetDeviceAddress() override { return 0; }
  std::uint8_t GetDeviceSpeed() override { return 0; }
  int GetStringDescriptor(std::uint8_t, std::uint16_t, std::uint8_t*, int) override { return LIBUSB_ERROR_NOT_FOUND; }
  int ResetDevice() override { return LIBUSB_ERROR_NOT_FOUND; }
  int AttachKernelDriver() override { return LIBUSB_ERROR_NOT_FOUND; }
  int DetachKernelDriver() override { return LIBUSB_ERROR_NOT_FOUND; }
  int ClearHalt(int) override { return LIBUSB_ERROR_NOT_FOUND; }
  int ReleaseAllInterface() override { return LIBUSB_ERROR_NOT_FOUND; }
  int SetConfiguration(int) override { return LIBUSB_ERROR_NOT_FOUND; }
  int ClaimAllInterface() override { return LIBUSB_ERROR_NOT_FOUND; }
  int SetInterfaceAltSetting(int, int) override { return LIBUSB_ERROR_NOT_FOUND; }
  int CancelTransfer(std::uint32_t) override { return LIBUSB_ERROR_NOT_FOUND; }
  int CancelOwnTransfers(const UsbIoTransferCallback*) override { return 0; }
  int ControlTransfer(std::uint8_t, std::uint8_t, std::uint16_t, std::uint16_t, std::uint8_t*, std::uint16_t,
                      std::uint32_t) override {
    return LIBUSB_ERROR_NOT_FOUND;
  }
  int BulkTransfer(_UsbIoXferInfo* info) override { return Refuse(info); }
  int InterruptTransfer(_UsbIoXferInfo* info) override { return Refuse(info); }
  int IsochTransfer(_UsbIoXferInfo* info) override { return Refuse(info); }

 private:
  static int Refuse(_UsbIoXferInfo* info) {
    const XferGuard completesAsRefused(info);
    return LIBUSB_ERROR_NOT_FOUND;
  }
};

}  // namespace vel

#endif
