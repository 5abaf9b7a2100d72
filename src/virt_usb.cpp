#include "virt_usb.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <new>
#include <span>
#include <utility>

#include "base/VelLog.h"
#include "protocol/ByteReader.h"

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
constexpr std::uint32_t kKeptOfRefused = 16;

// What such requests may take beyond the budget, together; more are dropped.
constexpr std::uint64_t kMaxRefusedBytes = 16ULL << 20U;

std::shared_ptr<VirtUDevice> OrUnavailable(VelDeviceBase* deviceBase, const std::shared_ptr<VirtUDevice>& device) {
  return device != nullptr ? device : std::make_shared<VirtUDevice>(deviceBase);
}

bool IsEmulated(const VelDeviceBase* deviceBase) {
  return deviceBase != nullptr && deviceBase->IsEmulated();
}

bool IsTransfer(Command command) {
  return command == Command::kBulkTransfer || command == Command::kInterruptTransfer ||
         command == Command::kIsochTransfer;
}

// Null without memory.
std::unique_ptr<VelPacket> KeepFields(const VelPacket& packet) {
  const std::span<const std::uint8_t> payload = packet.PayloadBytes();
  const std::span<const std::uint8_t> kept = payload.first(std::min<std::size_t>(payload.size(), kKeptOfRefused));
  auto fields = VelPacket::TryMake(VelPacket::kHeaderSize + kKeptOfRefused);
  if (fields != nullptr) {
    fields->InitHeader(packet.GetReqId(), packet.GetCommand(), packet.GetDevId());
    fields->Append(kept.data(), static_cast<std::uint32_t>(kept.size()));
  }
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
      mEmulatedHold(IsEmulated(deviceBase) ? std::make_unique<DeviceHandlerAA>(mDevice) : nullptr),
      mRunning(mLooper->Start() == 0) {
  if (deviceBase == nullptr || device == nullptr) {
    VEL_DEVICE_ERROR(mDeviceBase, "operator dev is NULL\n");
  }
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

int VirtUsb::Stop() noexcept {
  VEL_DEVICE_DEBUG(mDeviceBase, "stop\n");
  mDevice->CancelOpen();  // Under the mutex a camera may take its seconds.
  {
    const MutexLock lock(mMutex);
    VEL_DEVICE_DEBUG(mDeviceBase, "virt_usb Close");
    if (mEnabled.exchange(false)) {
      for (const StatusOperation giveBack :
           {&VirtUDevice::AttachKernelDriver, &VirtUDevice::ResetDevice, &VirtUDevice::CloseUsbDev}) {
        try {
          ((*mDevice).*giveBack)();
        } catch (const std::exception& error) {  // The next is done all the same.
          VEL_DEVICE_ERROR(mDeviceBase, "giving the device back: %s", error.what());
        }
      }
    }
  }
  return mLooper->Stop();
}

int VirtUsb::EventHandler(std::unique_ptr<VelPacket> packet) noexcept {
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
  std::uint64_t cost = QueuedCost(*packet);
  if (!budget.Take(cost)) {
    if (kCommands[index].fieldBytes > 0 && packet->PayloadBytes().size() > kKeptOfRefused) {
      static constexpr HandlerEntry kDropped = {{}, &VirtUsb::onDroppedData};
      entry = &kDropped;
    }
    packet = KeepFields(*packet);
    if (packet == nullptr || budget.Taken() > kMaxPendingBytes + kMaxRefusedBytes) {
      VEL_DEVICE_ERROR(mDeviceBase, "too many requests wait, one is dropped: cmd[%u]", unsigned{code});
      return 0;
    }
    cost = QueuedCost(*packet);
    budget.Add(cost);
  }
  // Small and trivial: std::function keeps it without an allocation.
  const auto run = [this, entry](PacketPtr request) { return Handle(*entry, std::move(request)); };
  std::unique_ptr<Message> task(new (std::nothrow) TransferTaskMessageA(run, std::move(packet)));
  if (mLooper->PostMessageAAA(std::move(task)) != 0) {
    budget.Return(cost);
    if (mEnabled.load(std::memory_order_acquire)) {
      VEL_DEVICE_ERROR(mDeviceBase, "no memory to queue a request, it is dropped: cmd[%u]", unsigned{code});
    }
  }
  return 0;
}

int VirtUsb::Handle(const HandlerEntry& entry, PacketPtr packet) noexcept {
  mQueuedCost = QueuedCost(*packet);
  if (!IsTransfer(entry.command)) {  // A transfer's place in the queue is exchanged for one among those that wait.
    ReturnQueuedCost();
  }
  const int result = HandleQueued(entry, std::move(packet));
  ReturnQueuedCost();
  return result;
}

void VirtUsb::ReturnQueuedCost() {
  if (mQueuedCost > 0) {
    mDevice->Budget().Return(std::exchange(mQueuedCost, 0));
  }
}

int VirtUsb::HandleQueued(const HandlerEntry& entry, PacketPtr packet) noexcept {
  if (!mEnabled.load(std::memory_order_acquire)) {
    return 0;  // Stop is giving the device back: nothing touches it any more.
  }
  const RequestHead head = HeadOf(*packet);
  ByteReader fields(packet->PayloadBytes());
  fields.Skip(sizeof(std::uint32_t));  // Of a transfer: the endpoint, then the stream id.
  // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): read where the handler throws.
  const auto streamId = fields.Host<std::uint32_t>();
  mAnswered = false;
  try {
    return (this->*entry.handler)(std::move(packet));
  } catch (const std::exception& error) {
    VEL_DEVICE_ERROR(mDeviceBase, "request 0x%.4x failed: %s", unsigned{head.command}, error.what());
  }
  try {
    if (!mAnswered) {
      RefuseForWantOfMemory(head, streamId);
    }
  } catch (const std::exception& error) {
    VEL_DEVICE_ERROR(mDeviceBase, "request 0x%.4x is not answered: %s", unsigned{head.command}, error.what());
  }
  return 0;
}

}  // namespace vel
