#ifndef VEL_IO_DUMMY_USB_IO_DUMMY_UVC_IO_H
#define VEL_IO_DUMMY_USB_IO_DUMMY_UVC_IO_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/LockOrder.h"
#include "base/ModuleExport.h"
#include "io/DummyUsbIo/CameraStreamCallback.h"
#include "io/DummyUsbIo/CaptureCallback.h"
#include "io/DummyUsbIo/ConfigDescTree.h"
#include "io/DummyUsbIo/DummyUsbUtils.h"
#include "io/DummyUsbIo/ICamera.h"
#include "io/DummyUsbIo/UvcControls.h"
#include "io/DummyUsbIo/UvcStreamContext.h"
#include "io/IUsbIo.h"
#include "policys/UVCUtil.h"

namespace vel {

// A USB Video Class camera without a camera behind the bus: its pictures come from a camera source, one whole picture
// for each isochronous transfer, without payload headers and packets. It says what it is by descriptors built from the
// sizes that the source lists when it is opened.
//
// One transfer waits for a picture at a time. Another one in its place, a null one, closing and cancelling complete it
// as cancelled, as every transfer while the device is closed. A source's failure to start or stop is logged; the guest
// sees success.
//
// Completions come on the source's thread, or on the caller's for those that are cancelled.
class VEL_MODULE_EXPORT DummyUvcIo final : public IUsbIo,
                                           private DummyUsbUtils,
                                           private UVCUtil,
                                           private CameraStreamCallback {
 public:
  // At address 0x80 or 0x81 a local camera, which `args` names, and a synthetic one at any other.
  DummyUvcIo(std::uint8_t busNumber, std::uint8_t deviceAddress, std::uint16_t vid, std::uint16_t pid,
             std::string args);
  ~DummyUvcIo() override;

  void* GetIoHandler() override { return nullptr; }
  std::uint8_t GetIoType() override { return mIoType; }
  // Bit 0: the source's pictures are MJPEG.
  std::uint32_t GetIoCapability() override;
  void Init() override;
  int OpenUsbDev() override;
  void CancelOpen() override;
  int CloseUsbDev() override;
  std::uint8_t GetDevicePortNumber() override { return mPortNumber; }
  libusb_device_descriptor* GetDeviceDesc() override;
  libusb_config_descriptor* GetConfigDesc() override;
  std::uint8_t GetBusNumber() override { return mBusNumber; }
  std::uint8_t GetDeviceAddress() override { return mDeviceAddress; }
  std::uint8_t GetDeviceSpeed() override { return static_cast<std::uint8_t>(mSpeed); }
  int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, int length) override;
  int ResetDevice() override { return 0; }
  int AttachKernelDriver() override { return 0; }
  int DetachKernelDriver() override { return 0; }
  int ClearHalt(int /*endpoint*/) override { return 0; }
  int ReleaseAllInterface() override { return 0; }
  int SetConfiguration(int /*configuration*/) override { return 0; }
  int ClaimAllInterface() override { return 0; }
  int SetInterfaceAltSetting(int interfaceNumber, int altSetting) override;
  int CancelTransfer(std::uint32_t localXferId) override;
  int CancelOwnTransfers(const UsbIoTransferCallback* callback) override {
    return mStreamContext.CancelOwn(callback) ? 1 : 0;
  }
  int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout) override;
  // There are no such endpoints: the record is completed with status 1.
  int BulkTransfer(_UsbIoXferInfo* info) override;
  int InterruptTransfer(_UsbIoXferInfo* info) override;
  int IsochTransfer(_UsbIoXferInfo* info) override;

 private:
  // What GetDeviceDesc and GetConfigDesc hand out.
  struct Descriptors {
    Descriptors(const libusb_device_descriptor& deviceDesc, std::span<const std::uint8_t> configBytes)
        : device(deviceDesc), config(configBytes) {}
    libusb_device_descriptor device;
    ConfigDescTree config;
  };

  bool IsLocalCamera() const;
  int ReadCamParamList() VEL_REQUIRES(mMutex);
  int ParseCamParamList(const _CameraParam* list, int size) VEL_REQUIRES(mMutex);
  void CreateUvcDevice() VEL_REQUIRES(mMutex);
  void DestroyUvcDevice() VEL_REQUIRES(mMutex);
  void StartSource() VEL_REQUIRES(mMutex);
  void StopSource() VEL_REQUIRES(mMutex);
  void CloseSource() VEL_REQUIRES(mMutex);
  static bool IsSupportMjpegForVM(std::uint16_t vid, std::uint16_t pid);
  static bool IsCustomDevice(std::uint16_t vid, std::uint16_t pid, std::uint32_t& type);

  void CameraStreamCb(std::uint8_t* data, std::uint32_t length, void* context) override;
  static void CameraStreamCallbackQt(std::uint8_t* data, std::uint32_t length, void* context);

  const std::uint8_t mBusNumber;
  const std::uint8_t mPortNumber = 0xFF;
  const std::uint8_t mDeviceAddress;
  const std::uint32_t mSpeed = LIBUSB_SPEED_HIGH;
  const std::uint16_t mVendorId;
  const std::uint16_t mProductId;
  const std::uint8_t mCameraId;
  const std::string mArgs;
  const std::uint8_t mIoType = kIoTypeEmulated;
  const bool mMjpegForVM;  // The streaming interface offers MJPEG as well.
  [[maybe_unused]] const bool mCustomDevice;
  // Written under the lock; read by any thread, completions included.
  std::atomic<bool> mSourceHasMjpeg{false};
  std::atomic<std::uint32_t> mIoCapability{0};

  // Open, close and alternate settings. Held while the source starts and stops, and never in a completion.
  Mutex mMutex VEL_LOCK_LEVEL(Control);
  std::unique_ptr<ICamera> mCamera VEL_GUARDED_BY(mMutex);
  std::vector<_CameraParam> mSupportedParams VEL_GUARDED_BY(mMutex);
  std::unique_ptr<Descriptors> mDescriptors VEL_GUARDED_BY(mMutex);
  // Those of before the last close, which another thread may still be reading.
  std::unique_ptr<Descriptors> mFormerDescriptors VEL_GUARDED_BY(mMutex);
  bool mOpened VEL_GUARDED_BY(mMutex) = false;

  UvcControls mControls;
  ICamera* const mSource;  // mCamera, for requesting pictures and for CancelOpen, without the lock.
  UvcStreamContext mStreamContext;
  CaptureCallback mCaptureCallback{mArgs, IsLocalCamera(), &CameraStreamCallbackQt, &mStreamContext};
};

}  // namespace vel

#endif
