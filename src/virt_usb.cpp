#include "virt_usb.h"

#include <algorithm>
#include <array>
#include <new>

#include "base/VelLog.h"

namespace vel {
namespace {

// What a queued request costs beside its packet's block: message, packet object, allocator overhead; rounded up,
// so that a flood of empty packets is bounded as well.
constexpr std::uint64_t kQueuedOverhead = 256;

std::uint64_t QueuedCost(const VelPacket& packet) {
  return packet.GetCapacity() + kQueuedOverhead;
}

// Payload bytes that are kept of a request that does not fit the queue: enough for the fields of every command, so
// that the loop can refuse it by name and stream id.
constexpr std::size_t kKeptOfRefused = 16;

// What such requests may take beyond the budget, together; more are dropped.
constexpr std::uint64_t kMaxRefusedBytes = 16ULL << 20U;

std::shared_ptr<VirtUDevice> OrUnavailable(VelDeviceBase* deviceBase, const std::shared_ptr<VirtUDevice>& device) {
  return device != nullptr ? device : std::make_shared<VirtUDevice>(deviceBase);
}

bool IsEmulated(const VelDeviceBase* deviceBase) {
  return deviceBase != nullptr && deviceBase->IsEmulated();
}

std::unique_ptr<VelPacket> KeepFields(const VelPacket& packet) {
  const std::span<const std::uint8_t> wire = packet.Wire();
  if (wire.size() < VelPacket::kHeaderSize) {  // A length that cannot be: nothing is known of it but its header.
    auto empty = std::make_unique<VelPacket>(VelPacket::kHeaderSize);
    empty->InitHeader(packet.GetReqId(), packet.GetCommand(), packet.GetDevId());
    return empty;
  }
  const std::size_t kept = std::min(wire.size(), VelPacket::kHeaderSize + kKeptOfRefused);
  auto fields = VelPacket::ForReceived(wire.first<VelPacket::kHeaderSize>(), static_cast<std::uint32_t>(kept));
  std::copy(wire.begin() + VelPacket::kHeaderSize, wire.begin() + static_cast<std::ptrdiff_t>(kept),
            fields->MutableWire().begin() + VelPacket::kHeaderSize);
  return fields;
}

}  // namespace

const VirtUsb::HandlerEntry& VirtUsb::EntryAt(std::size_t index) {
  static constexpr std::array<HandlerEntry, kCommands.size()> kHandlers = {{
      {Command::kGetDeviceDesc, &VirtUsb::onGetDeviceDesc},
      {Command::kOpenUsbDev, &VirtUsb::onOpenUsbDev},
      {Command::kCloseUsbDev, &VirtUsb::onCloseUsbDev},
      {Command::kGetDevicePortNumber, &VirtUsb::onGetDevicePortNumber},
      {Command::kGetDeviceConfig, &VirtUsb::onGetDeviceconfig},
      {Command::kGetBusNumber, &VirtUsb::onGetBusNumber},
      {Command::kGetDeviceAddress, &VirtUsb::onGetDeviceAddress},
      {Command::kGetStringDescriptor, &VirtUsb::onGetStringDescriptor},
      {Command::kResetDevice, &VirtUsb::onResetDevice},
      {Command::kAttachKernelDriver, &VirtUsb::onAttachKernelDriver},
      {Command::kDetachKernelDriver, &VirtUsb::onDetachKernelDriver},
      {Command::kClearHalt, &VirtUsb::onClearHalt},
      {Command::kReleaseAllInterface, &VirtUsb::onReleaseAllInterface},
      {Command::kSetConfiguration, &VirtUsb::onSetConfiguration},
      {Command::kClaimAllInterface, &VirtUsb::onClaimAllInterface},
      {Command::kSetInterfaceAltSetting, &VirtUsb::onSetInterfaceAltSetting},
      {Command::kCancelTransfer, &VirtUsb::onCancelTransfer},
      {Command::kControlTransfer, &VirtUsb::onControlTransfer},
      {Command::kBulkTransfer, &VirtUsb::onBulkTransfer},
      {Command::kInterruptTransfer, &VirtUsb::onInterruptTransfer},
      {Command::kIsochTransfer, &VirtUsb::onIsochTransfer},
      {Command::kGetDeviceSpeed, &VirtUsb::onGetDeviceSpeed},
      {Command::kSetRedirPolicy, &VirtUsb::onSetRedirPolicy},
      {Command::kPing, &VirtUsb::doPingProcess},
  }};
  static_assert(
      [] {
        for (std::size_t i = 0; i < kCommands.size(); ++i) {
          if (kHandlers[i].command != kCommands[i].command) {
            return false;
          }
        }
        return true;
      }(),
      "one handler for each command, in the table's order");
  return kHandlers[index];
}

VirtUsb::VirtUsb(VelDeviceBase* deviceBase, const std::shared_ptr<VirtUDevice>& device)
    : mLooper(std::make_unique<Looper>()),
      mDeviceBase(deviceBase),
      mDevice(OrUnavailable(deviceBase, device)),
      mEmulatedHold(IsEmulated(deviceBase) ? std::make_unique<DeviceHandlerAA>(mDevice) : nullptr) {
  if (deviceBase == nullptr || device == nullptr) {
    VEL_DEVICE_ERROR(mDeviceBase, "operator dev is NULL\n");
  }
  mLooper->Start();
}

VirtUsb::~VirtUsb() {
  VEL_DEVICE_DEBUG(mDeviceBase, "operator dev is NULL\n");
  mLooper->Stop();
  VEL_DEVICE_DEBUG(mDeviceBase, "handler stop\n");
  VEL_DEVICE_DEBUG(mDeviceBase, "handler reset\n");
}

int VirtUsb::IsRedirected() const {
  return mDeviceBase == nullptr ? 0 : mDeviceBase->IsRedirected();
}

int VirtUsb::Stop() {
  VEL_DEVICE_DEBUG(mDeviceBase, "stop\n");
  {
    const MutexLock lock(mMutex);
    VEL_DEVICE_DEBUG(mDeviceBase, "virt_usb Close");
    if (mEnabled.exchange(false)) {
      mDevice->AttachKernelDriver();
      mDevice->ResetDevice();
      mDevice->CloseUsbDev();
    }
  }
  return mLooper->Stop();
}

int VirtUsb::EventHandler(std::unique_ptr<VelPacket> packet) {
  if (packet == nullptr || !mEnabled.load(std::memory_order_acquire)) {
    return 0;
  }
  const std::uint16_t code = packet->GetCommand();
  VEL_DEVICE_DEBUG(mDeviceBase, "EventHandler cmd:%d", int{code});
  const std::size_t index = CommandIndex(code);
  if (index == kCommands.size()) {
    VEL_DEVICE_ERROR(mDeviceBase, "unknown cmd[%u]", unsigned{code});
    return 0;
  }
  TransferBudget& budget = mDevice->Budget();
  const HandlerEntry* entry = &EntryAt(index);
  if (!budget.Take(QueuedCost(*packet))) {
    if (kCommands[index].fieldBytes > 0 && packet->PayloadBytes().size() > kKeptOfRefused) {
      static constexpr HandlerEntry kDropped = {{}, &VirtUsb::onDroppedData};
      entry = &kDropped;
    }
    packet = KeepFields(*packet);
    if (budget.Taken() > kMaxPendingBytes + kMaxRefusedBytes) {
      VEL_DEVICE_ERROR(mDeviceBase, "too many requests wait, one is dropped: cmd[%u]", unsigned{code});
      return 0;
    }
    budget.Add(QueuedCost(*packet));
  }
  struct Call {  // Small and trivial: std::function keeps it without an allocation.
    VirtUsb* session;
    const HandlerEntry* entry;
  };
  const Call call{this, entry};
  auto run = [call](std::unique_ptr<VelPacket> request) {
    VirtUsb& session = *call.session;
    session.mDevice->Budget().Return(QueuedCost(*request));
    if (!session.mEnabled.load(std::memory_order_acquire)) {
      return 0;  // Stop is giving the device back: nothing touches it any more.
    }
    return (session.*call.entry->handler)(std::move(request));
  };
  mLooper->PostMessageAAA(std::make_unique<TransferTaskMessageA>(run, std::move(packet)));
  return 0;
}

}  // namespace vel
