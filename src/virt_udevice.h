#ifndef VEL_VIRT_UDEVICE_H
#define VEL_VIRT_UDEVICE_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "PingClock.h"
#include "RequestXfer.h"
#include "TransferBudget.h"
#include "io/IUsbIo.h"
#include "io/IVirtUsbIoFactory.h"
#include "policys/RedirPolicy.h"
#include "vel/VelDeviceBase.h"

namespace vel {

// The device as the session sees it: its backend, its policy, its transfers and their give-back.
//
// Loop thread, unless said otherwise. Shared by the driver and the session; `deviceBase` outlives it.
class VirtUDevice : private UsbIoTransferCallback {
 public:
  using IoFactory = IUsbIo* (*)(std::uint32_t type, VelDeviceBase* device);

  explicit VirtUDevice(VelDeviceBase* deviceBase, IoFactory factory = &CreateUsbIo);
  VirtUDevice(const VirtUDevice&) = delete;
  VirtUDevice& operator=(const VirtUDevice&) = delete;
  // Completes what is in flight. Any thread, once no operation runs.
  ~VirtUDevice() override;

  // Chooses the backend by the device's address. Once, before anything else. Without a device-base object the
  // device keeps a backend that answers "not open" to everything.
  void Init();

  int OpenUsbDev();
  // For good, see IUsbIo. Any thread.
  void CancelOpen() { mIo->CancelOpen(); }
  // This, ResetDevice and AttachKernelDriver: also from the thread that stops the session.
  int CloseUsbDev();
  int ResetDevice();
  int AttachKernelDriver();
  // Owned by the backend; null when it has none. Sets bMaxPacketSize0 to 64 in it, for nearly every device.
  libusb_device_descriptor* GetDevDescript();
  libusb_config_descriptor* GetDeviceconfig();
  int SetInterfaceAltSetting(std::uint32_t interfaceNumber, std::uint32_t altSetting);
  int SetRedirPolicy(const char* policyText);

  int GetDevicePortNumber() { return mIo->GetDevicePortNumber(); }
  int GetBusNumber() { return mIo->GetBusNumber(); }
  int GetDeviceAddress() { return mIo->GetDeviceAddress(); }
  int GetDeviceSpeed() { return mIo->GetDeviceSpeed(); }
  // Writes at most 256 bytes, whatever `length` says.
  int GetStringDescriptor(std::uint8_t index, std::uint16_t langId, std::uint8_t* buffer, std::uint32_t length);
  int DetachKernelDriver() { return mIo->DetachKernelDriver(); }
  int ClearHalt(int endpoint) { return mIo->ClearHalt(endpoint); }
  int ReleaseAllInterface() { return mIo->ReleaseAllInterface(); }
  int SetConfiguration(int configuration) { return mIo->SetConfiguration(configuration); }
  int ClaimAllInterface() { return mIo->ClaimAllInterface(); }
  int CancelTransfer(std::uint32_t streamId);

  // Bytes transferred (at most wLength) or a negative status.
  int ControlTransfer(std::uint8_t bmRequestType, std::uint8_t bRequest, std::uint16_t wValue, std::uint16_t wIndex,
                      std::uint8_t* data, std::uint16_t wLength, std::uint32_t timeout);

  // Asynchronous. `data` (a malloc block of `length` bytes, never null) and `reqCtx` (a TransferContext in a malloc
  // block) belong to the transfer from the call on, whatever it returns; it is given back exactly once. Both may be
  // those of a record that MakeRequestXfer made, which the context then names.
  int BulkTransfer(std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length, std::uint8_t* data, void* reqCtx);
  int InterruptTransfer(std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length, std::uint8_t* data,
                        void* reqCtx);
  // `data` begins with the table of `isoPacketNum` packets.
  int IsoTransfer(std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t isoPacketNum, std::uint32_t length,
                  std::uint8_t* data, void* reqCtx);

  // Gives a transfer that cannot be carried out back with status 1 and no data, and its place in the budget.
  void RefuseTransfer(std::uint32_t xferType, const TransferContext& context) noexcept;

  // Whether the data of bulk and interrupt transfers may lie in packets, see IUsbIo.
  bool LeavesDataInPlace() const { return mIo->LeavesDataInPlace(); }

  // Bounds what waits for this device. A transfer's place in it, which its context names, is given back at completion.
  TransferBudget& Budget() { return mBudget; }

  // Ends the timing of the camera picture that was given back as `streamId`; `timestamp` is the remote side's.
  void Ping(std::uint32_t streamId, std::uint64_t timestamp);

  // The reply's command for a transfer type (XferType); 0xFFFF for none.
  static std::uint16_t transfer_type_to_proto_type(std::uint8_t xferType);

 private:
  // Completion thread of the backend, or the loop thread.
  void UsbIoXferCb(_UsbIoXferInfo* info) noexcept override;
  // Both let nothing through: a reply that cannot be made or sent is logged.
  void Complete(_UsbIoXferInfo& info, const TransferContext& context) noexcept;
  void GivebackPackToRemote(_UsbIoXferInfo& info, const TransferContext& context);
  void ReturnBudget(const TransferContext& context);

  int SubmitBulkLike(std::uint32_t xferType, std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length,
                     std::uint8_t* data, void* reqCtx);
  XferPtr NewXfer(std::uint32_t xferType, std::uint8_t epAddr, std::uint32_t streamId, std::uint32_t length,
                  std::uint8_t* data, void* reqCtx);
  // Trace event of an emulated device; nothing for a real one.
  void ReportEvent(const char* name, bool success, const char* message) noexcept;

  VelDeviceBase* const mDeviceBase;
  const IoFactory mFactory;
  TransferBudget mBudget;
  PingClock mPingClock;
  std::atomic<bool> mAwaitsFirstCameraData{false};
  std::unique_ptr<IUsbIo> mIo;  // Not null before the destructor, does not change after Init.
  bool mEmulated = false;       // The backend's type, for completions: they still come while it is destroyed.
  std::unique_ptr<RedirPolicy> mPolicy;
};

}  // namespace vel

#endif
