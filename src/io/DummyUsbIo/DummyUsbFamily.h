#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_USB_FAMILY_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_USB_FAMILY_H

#include <cstdint>
#include <memory>
#include <span>

#include "io/DummyUsbIo/ConfigDescTree.h"
#include "io/DummyUsbIo/DummyUsbUtils.h"
#include "io/DummyUsbIo/PendingXfers.h"
#include "io/IUsbIo.h"
#include "vel/Mutex.h"

namespace vel {

// One control request with a fixed answer. A field that is kAny matches everything.
struct CannedAnswer {
  static constexpr int kAny = -1;

  int bmRequestType = kAny;
  int bRequest = kAny;
  int wValue = kAny;
  int wIndex = kAny;
  std::span<const std::uint8_t> answer = {};
  void (*log)(std::uint16_t wValue, std::uint16_t wIndex, std::uint16_t wLength) = nullptr;
};

// Everything in which the members of the family differ.
struct DummyUsbProfile {
  enum class Interrupt : std::uint8_t {
    kAnswers,  // As bulk.
    kPends,    // Stays pending, as on a keyboard on which nobody types.
  };

  std::span<const std::uint8_t, LIBUSB_DT_DEVICE_SIZE> deviceDesc;
  std::span<const std::uint8_t> configDesc;
  Interrupt interrupt = Interrupt::kAnswers;
  bool announcesRequestType = false;  // HandleUsbRequest comes first.
  bool answersLanguage = true;        // wValue 0x0300
  std::uint16_t firstStringValue = 0x0301;
  std::uint16_t lastStringValue = 0x0303;
  std::span<const CannedAnswer> answers = {};  // Looked at after the language request, before the strings.
  void (*logRequest)(std::uint16_t wValue, std::uint16_t wIndex, std::uint16_t wLength) = nullptr;
};

// The behaviour of the simple emulated devices: fixed descriptors, canned control answers, and data endpoints that
// deliver a byte pattern. No request fails. Transfers complete on the caller's thread, or stay pending until they are
// cancelled or the device is closed.
//
// Control answers are chosen by wValue, whatever the request is, unless a canned answer says more.
class DummyUsbFamily : public IUsbIo, private DummyUsbUtils {
 public:
  DummyUsbFamily(const DummyUsbProfile& profile, std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid,
                 std::uint16_t pid);
  ~DummyUsbFamily() override;

  void* GetIoHandler() override;
  std::uint8_t GetIoType() override { return kIoTypeEmulated; }
  void Init() override;
  int OpenUsbDev() override;
  int CloseUsbDev() override;
  std::uint8_t GetDevicePortNumber() override { return mPortNumber; }
  libusb_device_descriptor* GetDeviceDesc() override;
  libusb_config_descriptor* GetConfigDesc() override;
  std::uint8_t GetBusNumber() override { return mBusNumber; }
  std::uint8_t GetDeviceAddress() override { return mDeviceAddress; }
  std::uint8_t GetDeviceSpeed() override { return static_cast<std::uint8_t>(mSpeed); }
  int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) override;
  int ResetDevice() override;
  int AttachKernelDriver() override;
  int DetachKernelDriver() override;
  int ClearHalt(int endpoint) override;
  int ReleaseAllInterface() override;
  int SetConfiguration(int configuration) override;
  int ClaimAllInterface() override;
  int SetInterfaceAltSetting(int interfaceNumber, int altSetting) override;
  int CancelTransfer(std::uint32_t localXferId) override;
  int CancelOwnTransfers(const UsbIoTransferCallback* callback) override { return mPending.CancelOwn(callback); }
  int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) override;
  int BulkTransfer(_UsbIoXferInfo* info) override;
  int InterruptTransfer(_UsbIoXferInfo* info) override;
  int IsochTransfer(_UsbIoXferInfo* info) override;
  bool LeavesDataInPlace() const override { return true; }

 private:
  void CreateCompositeDevice();
  static void HandleUsbRequest(std::uint8_t bmRequestType);
  static bool FillIsochTable(_UsbIoXferInfo& info);
  static bool FillIsochIn(_UsbIoXferInfo& info, std::uint32_t payload);

  const DummyUsbProfile& mProfile;
  const std::uint8_t mBusNumber;
  const std::uint8_t mPortNumber = 0xFF;
  const std::uint8_t mDeviceAddress;
  const std::uint32_t mSpeed = LIBUSB_SPEED_FULL;
  const std::uint16_t mVendorId;  // As constructed; the descriptors carry their own.
  const std::uint16_t mProductId;
  std::unique_ptr<libusb_device_descriptor> mDeviceDesc;
  std::unique_ptr<ConfigDescTree> mConfigDesc;
  PendingXfers mPending;
};

}  // namespace vel

#endif
