#ifndef VEL_VIRT_USB_H
#define VEL_VIRT_USB_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "protocol/Commands.h"
#include "protocol/Requests.h"
#include "protocol/VelPacket.h"
#include "vel/DriverObj.h"
#include "vel/Looper.h"
#include "vel/Message.h"
#include "vel/VelDeviceBase.h"
#include "virt_udevice.h"
#include "virtusb_device_handler.h"

namespace vel {

// What the framework sees of a device session. The order of the virtual operations is a binary interface.
class VirtUsbInf : public DriverObj {
 public:
  virtual int Stop() = 0;
  virtual int EventHandler(std::unique_ptr<VelPacket> packet) = 0;
  virtual int IsDeviceRedirected() const = 0;
};

// One queued request: a handler bound to its session, and the packet. Destroyed with the packet when it was
// never handled.
class TransferTaskMessageA : public Message {
 public:
  using Function = std::function<int(std::unique_ptr<VelPacket>)>;

  // The function is made of `handler` where it stays: moved here it would be read in one piece right after it was
  // written in two, which stalls the processor.
  template <class Handler>
  TransferTaskMessageA(const Handler& handler, std::unique_ptr<VelPacket> packet)
      : mFunction(handler), mPacket(std::move(packet)) {}

  // The function lets nothing through.
  void HandleMessage() noexcept override { mFunction(std::move(mPacket)); }

 private:
  const Function mFunction;
  std::unique_ptr<VelPacket> mPacket;
};

// The session of one redirected device: takes request packets, and carries each out on its own loop thread, one
// at a time and in arrival order.
//
// EventHandler runs on the framework's thread and only posts; Stop and the destructor may come from any thread but
// the loop's own. `deviceBase` outlives the session.
class VirtUsb final : public VirtUsbInf {
 public:
  VirtUsb(VelDeviceBase* deviceBase, const std::shared_ptr<VirtUDevice>& device);
  ~VirtUsb() override;

  std::uint16_t GetDriverType() const override { return kDriverType; }
  std::uint16_t GetFirstMatch() const override { return kMatchesAll; }
  std::uint16_t GetSecondMatch() const override { return kMatchesAll; }
  const char* GetTypeName() const override { return "virtlibusb"; }
  int IsRedirected() const override;

  // Gives the device back and ends the loop: waits for the handler that runs, drops the requests that wait. Once
  // stopped, a session stays stopped; a second call does nothing. Returns 0.
  int Stop() noexcept override;
  // Queues a request. Returns 0; unknown commands, packets after Stop and packets for which there is no memory are
  // dropped.
  int EventHandler(std::unique_ptr<VelPacket> packet) noexcept override;
  int IsDeviceRedirected() const override { return IsRedirected(); }

  // False when the loop got no thread: nothing is ever carried out.
  bool IsRunning() const { return mRunning; }

  static constexpr std::uint16_t kDriverType = 0x0010;
  static constexpr std::uint16_t kMatchesAll = 0xFFFF;

 private:
  using PacketPtr = std::unique_ptr<VelPacket>;
  using Handler = int (VirtUsb::*)(PacketPtr);
  using StatusOperation = int (VirtUDevice::*)();
  struct HandlerEntry {
    Command command;
    Handler handler;
  };
  static const HandlerEntry& EntryAt(std::size_t index);
  // What a reply repeats of its request.
  struct RequestHead {
    std::uint8_t reqId = 0;
    std::uint16_t command = 0;
    std::uint32_t devId = 0;
  };
  static RequestHead HeadOf(const VelPacket& request) {
    return {request.GetReqId(), request.GetCommand(), request.GetDevId()};
  }

  // Carries a queued request out. Whatever fails in it, the request is answered, as refused if need be.
  int Handle(const HandlerEntry& entry, PacketPtr packet) noexcept;
  int HandleQueued(const HandlerEntry& entry, PacketPtr packet) noexcept;
  void ReturnQueuedCost();
  void RefuseForWantOfMemory(const RequestHead& request, std::uint32_t streamId);

  // Handlers: loop thread. virtusb_device_handler.cpp.
  int onGetDeviceDesc(PacketPtr packet);
  int onOpenUsbDev(PacketPtr packet);
  int onCloseUsbDev(PacketPtr packet);
  int onGetDevicePortNumber(PacketPtr packet);
  int onGetDeviceconfig(PacketPtr packet);
  int onGetBusNumber(PacketPtr packet);
  int onGetDeviceAddress(PacketPtr packet);
  int onGetStringDescriptor(PacketPtr packet);
  int onResetDevice(PacketPtr packet);
  int onAttachKernelDriver(PacketPtr packet);
  int onDetachKernelDriver(PacketPtr packet);
  int onClearHalt(PacketPtr packet);
  int onReleaseAllInterface(PacketPtr packet);
  int onSetConfiguration(PacketPtr packet);
  int onClaimAllInterface(PacketPtr packet);
  int onSetInterfaceAltSetting(PacketPtr packet);
  int onCancelTransfer(PacketPtr packet);
  int onControlTransfer(PacketPtr packet);
  int onBulkTransfer(PacketPtr packet);
  int onInterruptTransfer(PacketPtr packet);
  int onIsochTransfer(PacketPtr packet);
  int onGetDeviceSpeed(PacketPtr packet);
  int onSetRedirPolicy(PacketPtr packet);
  int doPingProcess(PacketPtr packet);
  // Instead of the command's own handler, for a request that lost data which that one would have read.
  int onDroppedData(PacketPtr packet);

  // The handler of a command without fields whose reply is the operation's result.
  int RunStatusCommand(PacketPtr request, const char* handler, int line, StatusOperation operation);
  int RefuseSync(PacketPtr request, PayloadError error = PayloadError::kTooShort);
  int ReplyStatus(PacketPtr request, std::int32_t result);
  int SendStatus(PacketPtr reply, std::int32_t result);
  // An empty reply whose block has room for `payloadRoom` bytes. Throws std::bad_alloc, as whatever a handler calls
  // may.
  static PacketPtr MakeReply(const RequestHead& request, std::uint32_t capacity, std::uint32_t payloadRoom);
  // The same in the request's own block where that fits: nothing of the request is read any more.
  static PacketPtr MakeReply(PacketPtr request, std::uint32_t capacity, std::uint32_t payloadRoom);
  int SendReply(PacketPtr reply);
  void LogBadPayload(const VelPacket& request, PayloadError error) const;

  // The transfer's record, ready for the device, or null once the request was refused. Takes the packet over where the
  // record's data lies in it.
  XferPtr PrepareTransfer(PacketPtr& request, std::uint32_t xferType, const TransferRequest& transfer);

  // Writes the first bytes of a payload to the log.
  void velPrintData(const std::uint8_t* data, int n) const;

  // Serialises Stop with the handlers that open, select a setting, or submit isochronous.
  Mutex mMutex VEL_LOCK_LEVEL(Session);
  const std::unique_ptr<Looper> mLooper;
  VelDeviceBase* const mDeviceBase;
  const std::shared_ptr<VirtUDevice> mDevice;  // Never null.
  const std::unique_ptr<DeviceHandlerAA> mEmulatedHold;
  std::atomic<bool> mEnabled{true};
  bool mAnswered = false;         // Loop thread: the present request has its reply, or the device sees to it.
  std::uint64_t mQueuedCost = 0;  // Loop thread: of the present request, until it is returned to the budget.
  const bool mRunning;            // The last, so that the loop finds the others whole.
};

}  // namespace vel

#endif
