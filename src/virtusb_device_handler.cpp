// The request handlers of a session, one per command of the command table.
#include "virtusb_device_handler.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "ConfigSerializer.h"
#include "base/VelLog.h"
#include "virt_usb.h"

namespace vel {
namespace {

constexpr std::uint32_t kReplyCapacity = 1024;
constexpr std::uint32_t kConfigReplyCapacity = 16384;

// What a pending transfer takes beside its data: record, context, what the backend keeps of it, what the allocator
// adds; rounded up.
constexpr std::uint32_t kTransferOverhead = 512;

// The bytes that a transfer holds while it is pending: its data, or the request of `requestBytes` in which that lies. A
// backend has an isochronous transfer's packets in a buffer of its own, whatever n is.
std::uint32_t PendingCost(const TransferRequest& transfer, std::uint32_t requestBytes) {
  const bool stays = (transfer.epAddr & kDirectionIn) == 0;
  return kTransferOverhead + std::max(transfer.length, stays ? requestBytes : 0) + transfer.isoBytes;
}

std::uint32_t TransferType(Command command) {
  return command == Command::kBulkTransfer        ? kXferBulk
         : command == Command::kInterruptTransfer ? kXferInterrupt
                                                  : kXferIsochronous;
}

}  // namespace

DeviceHandlerAA::~DeviceHandlerAA() {
  VEL_DEBUG("~devicehandler end\n");
}

VirtUsb::PacketPtr VirtUsb::MakeReply(const RequestHead& request, std::uint32_t capacity, std::uint32_t payloadRoom) {
  auto reply = VelPacket::TryMake(capacity, payloadRoom);
  if (reply == nullptr) {
    throw std::bad_alloc();
  }
  reply->InitHeader(request.reqId, static_cast<std::uint16_t>(request.command + 1), request.devId);
  return reply;
}

VirtUsb::PacketPtr VirtUsb::MakeReply(PacketPtr request, std::uint32_t capacity, std::uint32_t payloadRoom) {
  const RequestHead head = HeadOf(*request);
  // A large block would wait with a small reply for its turn on the wire.
  if (request->PayloadRoom().size() > capacity || !request->Restart(capacity, payloadRoom)) {
    return MakeReply(head, capacity, payloadRoom);
  }
  request->InitHeader(head.reqId, static_cast<std::uint16_t>(head.command + 1), head.devId);
  return request;
}

int VirtUsb::SendReply(PacketPtr reply) {
  mAnswered = true;
  if (mDeviceBase != nullptr) {
    mDeviceBase->Send(std::move(reply), VelDeviceBase::kWaitUnbounded);
  }
  return 0;
}

int VirtUsb::SendStatus(PacketPtr reply, std::int32_t result) {
  reply->Append(&result, sizeof result);
  return SendReply(std::move(reply));
}

int VirtUsb::ReplyStatus(PacketPtr request, std::int32_t result) {
  return SendStatus(MakeReply(std::move(request), kReplyCapacity, sizeof result), result);
}

void VirtUsb::LogBadPayload(const VelPacket& request, PayloadError error) const {
  const CommandInfo* command = FindCommand(request.GetCommand());
  VEL_DEVICE_ERROR(mDeviceBase, "%.*s (0x%.4x): bad payload of %zu bytes, fields take %u: %.*s",
                   static_cast<int>(command->name.size()), command->name.data(), unsigned{command->Code()},
                   request.PayloadBytes().size(), command->fieldBytes, static_cast<int>(PayloadErrorText(error).size()),
                   PayloadErrorText(error).data());
}

int VirtUsb::RefuseSync(PacketPtr request, PayloadError error) {
  LogBadPayload(*request, error);
  return ReplyStatus(std::move(request), LIBUSB_ERROR_INVALID_PARAM);
}

void VirtUsb::RefuseForWantOfMemory(const RequestHead& request, std::uint32_t streamId) {
  const CommandInfo& command = *FindCommand(request.command);
  if (command.reply == ReplyKind::kAsync) {
    mDevice->RefuseTransfer(TransferType(command.command), {.deviceBase = mDeviceBase,
                                                            .device = mDevice.get(),
                                                            .reqId = request.reqId,
                                                            .devId = request.devId,
                                                            .streamId = streamId,
                                                            .reserved = 0,
                                                            .dataGiven = 0,
                                                            .record = nullptr});
  } else if (command.command == Command::kGetDeviceConfig) {
    SendReply(MakeReply(request, VelPacket::kHeaderSize, 0));  // As without a configuration.
  } else if (command.reply == ReplyKind::kSync && command.command != Command::kGetDeviceDesc) {
    SendStatus(MakeReply(request, kReplyCapacity, sizeof(std::int32_t)), LIBUSB_ERROR_NO_MEM);
  }
}

int VirtUsb::RunStatusCommand(PacketPtr request, const char* handler, int line, StatusOperation operation) {
  VEL_DEVICE_LINE(OSKELO_LOG_DEBUG, "Debug:", mDeviceBase, handler, line, "ENTER");
  const int ret = ((*mDevice).*operation)();
  VEL_DEVICE_LINE(OSKELO_LOG_DEBUG, "Debug:", mDeviceBase, handler, line, "%s ret:%d", handler, ret);
  return ReplyStatus(std::move(request), ret);
}

int VirtUsb::onGetDeviceDesc(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "onGetDeviceDesc");
  const libusb_device_descriptor* desc = mDevice->GetDevDescript();
  if (desc == nullptr) {
    VEL_DEVICE_ERROR(mDeviceBase, "FAIL 0");
    return 0;
  }
  static_assert(sizeof *desc == LIBUSB_DT_DEVICE_SIZE);  // libusb's record lies as the descriptor does.
  PacketPtr reply = MakeReply(std::move(packet), kReplyCapacity, LIBUSB_DT_DEVICE_SIZE);
  reply->Append(desc, LIBUSB_DT_DEVICE_SIZE);
  return SendReply(std::move(reply));
}

int VirtUsb::onOpenUsbDev(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "onOpenUsbDev start");
  int ret = LIBUSB_ERROR_NOT_FOUND;
  {
    const MutexLock lock(mMutex);
    if (mEnabled) {  // Stop may have closed the device while this waited: it stays closed.
      ret = mDevice->OpenUsbDev();
    }
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "onOpenUsbDev ret:%d", ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::onCloseUsbDev(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const int ret = mDevice->CloseUsbDev();
  VEL_DEBUG("onCloseUsbDev ret:%d", ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::onGetDevicePortNumber(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::GetDevicePortNumber);
}

int VirtUsb::onGetDeviceconfig(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "onGetDeviceconfig");
  PacketPtr reply = MakeReply(std::move(packet), kConfigReplyCapacity, kConfigReplyCapacity);
  if (const libusb_config_descriptor* config = mDevice->GetDeviceconfig(); config != nullptr) {
    AppendConfig(*reply, *config);
  }
  if (reply->Wire().size() != reply->GetPacketSize()) {
    throw std::bad_alloc();  // It could not grow: what is in it is not what its length says.
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "GetPayloadSize[%d],GetPacketSize[%d]", static_cast<int>(reply->GetPayloadSize()),
                   static_cast<int>(reply->GetPacketSize()));
  return SendReply(std::move(reply));
}

int VirtUsb::onGetBusNumber(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::GetBusNumber);
}

int VirtUsb::onGetDeviceAddress(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::GetDeviceAddress);
}

int VirtUsb::onGetStringDescriptor(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const auto request = ReadStringRequest(packet->PayloadBytes());
  if (!request) {
    return RefuseSync(std::move(packet));
  }
  std::array<std::uint8_t, kStringBufferBytes> buffer{};
  const std::int32_t ret =
      mDevice->GetStringDescriptor(request->index, request->langId, buffer.data(), request->length);
  PacketPtr reply = MakeReply(std::move(packet), kReplyCapacity, sizeof ret + kStringBufferBytes);
  reply->Append(&ret, sizeof ret);
  if (ret > 0) {
    reply->Append(buffer.data(), static_cast<std::uint32_t>(ret));
  }
  return SendReply(std::move(reply));
}

int VirtUsb::onResetDevice(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::ResetDevice);
}

int VirtUsb::onAttachKernelDriver(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::AttachKernelDriver);
}

int VirtUsb::onDetachKernelDriver(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::DetachKernelDriver);
}

int VirtUsb::onClearHalt(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const int ret = mDevice->ClearHalt(0);  // Always endpoint 0, on which remote sides count: the payload is not read.
  VEL_DEVICE_DEBUG(mDeviceBase, "onClearHalt ret:%d", ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::onReleaseAllInterface(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::ReleaseAllInterface);
}

int VirtUsb::onSetConfiguration(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const auto configuration = ReadU32Request(packet->PayloadBytes());
  if (!configuration) {
    return RefuseSync(std::move(packet));
  }
  const int ret = mDevice->SetConfiguration(static_cast<int>(*configuration));
  VEL_DEVICE_DEBUG(mDeviceBase, "onSetConfiguration configuration:%d ret:%d", static_cast<int>(*configuration), ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::onClaimAllInterface(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::ClaimAllInterface);
}

int VirtUsb::onSetInterfaceAltSetting(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const auto request = ReadAltSettingRequest(packet->PayloadBytes());
  if (!request) {
    return RefuseSync(std::move(packet));
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "onSetInterfaceAltSetting  interfaceNumber:%d ,alternateSetting:%d",
                   static_cast<int>(request->interfaceNumber), static_cast<int>(request->altSetting));
  int ret = LIBUSB_ERROR_NOT_FOUND;
  {
    const MutexLock lock(mMutex);
    if (mEnabled) {
      ret = mDevice->SetInterfaceAltSetting(request->interfaceNumber, request->altSetting);
    }
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "onSetInterfaceAltSetting  ret:%d", ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::onCancelTransfer(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const auto streamId = ReadU32Request(packet->PayloadBytes());
  if (!streamId) {
    return RefuseSync(std::move(packet));
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "onCancelTransfer  streamid:%d", static_cast<int>(*streamId));
  const int ret = mDevice->CancelTransfer(*streamId);
  VEL_DEVICE_DEBUG(mDeviceBase, "onCancelTransfer ret:%d", ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::onControlTransfer(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const auto request = ReadControlRequest(packet->PayloadBytes());
  if (!request) {
    return RefuseSync(std::move(packet));
  }
  std::vector<std::uint8_t> data(request->wLength);
  std::copy(request->data.begin(), request->data.end(), data.begin());
  VEL_DEVICE_DEBUG(mDeviceBase,
                   "controlTransfer requestType[0x%x],bRequest[0x%x],wValue[0x%x],wIndex[0x%x],wLength[%d],"
                   "timeout[%d]",
                   unsigned{request->bmRequestType}, unsigned{request->bRequest}, unsigned{request->wValue},
                   unsigned{request->wIndex}, int{request->wLength}, static_cast<int>(request->timeout));
  const std::int32_t ret = mDevice->ControlTransfer(request->bmRequestType, request->bRequest, request->wValue,
                                                    request->wIndex, data.data(), request->wLength, request->timeout);
  VEL_DEVICE_DEBUG(mDeviceBase, "onControlTransfer ret:%d", ret);
  PacketPtr reply = MakeReply(std::move(packet), request->wLength + kReplyCapacity,
                              static_cast<std::uint32_t>(sizeof ret) + static_cast<std::uint32_t>(std::max(ret, 0)));
  reply->Append(&ret, sizeof ret);
  if (ret > 0) {
    reply->Append(data.data(), static_cast<std::uint32_t>(ret));
    VEL_DEVICE_DEBUG(mDeviceBase, "ret:");
    velPrintData(data.data(), ret);
  }
  return SendReply(std::move(reply));
}

XferPtr VirtUsb::PrepareTransfer(PacketPtr& request, std::uint32_t xferType, const TransferRequest& transfer) {
  const RequestHead head = HeadOf(*request);
  const auto context = [&](std::uint32_t reserved, _UsbIoXferInfo* record) {
    return TransferContext{.deviceBase = mDeviceBase,
                           .device = mDevice.get(),
                           .reqId = head.reqId,
                           .devId = head.devId,
                           .streamId = transfer.streamId,
                           .reserved = reserved,
                           .dataGiven = static_cast<std::uint32_t>(transfer.data.size()),
                           .record = record};
  };
  mAnswered = true;  // From here on by the device.
  const bool inPlace = xferType != kXferIsochronous && mDevice->LeavesDataInPlace();
  std::uint32_t cost = PendingCost(transfer, inPlace ? request->GetCapacity() : 0);
  if (transfer.error != PayloadError::kNone) {
    LogBadPayload(*request, transfer.error);
    cost = 0;
  } else if (!mDevice->Budget().TakeTransfer(cost, std::exchange(mQueuedCost, 0))) {
    VEL_DEVICE_ERROR(mDeviceBase, "transfer of %u bytes refused: too many wait already", transfer.length);
    cost = 0;
  } else {
    if (XferPtr record = MakeRequestXfer(request, transfer, inPlace)) {
      new (record->reqBuf) TransferContext(context(cost, record.get()));
      return record;
    }
    VEL_DEVICE_ERROR(mDeviceBase, "no memory for a transfer of %u bytes", transfer.length);
  }
  mDevice->RefuseTransfer(xferType, context(cost, nullptr));
  return nullptr;
}

int VirtUsb::onBulkTransfer(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const TransferRequest transfer = ReadTransferRequest(packet->PayloadBytes());
  if (XferPtr record = PrepareTransfer(packet, kXferBulk, transfer)) {
    velPrintData(transfer.data.data(), static_cast<int>(transfer.data.size()));
    const _UsbIoXferInfo& given = *record.release();
    mDevice->BulkTransfer(transfer.epAddr, transfer.streamId, transfer.length, given.data, given.reqBuf);
  }
  return 0;
}

int VirtUsb::onInterruptTransfer(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const TransferRequest transfer = ReadTransferRequest(packet->PayloadBytes());
  if (XferPtr record = PrepareTransfer(packet, kXferInterrupt, transfer)) {
    const _UsbIoXferInfo& given = *record.release();
    mDevice->InterruptTransfer(transfer.epAddr, transfer.streamId, transfer.length, given.data, given.reqBuf);
  }
  return 0;
}

int VirtUsb::onIsochTransfer(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const TransferRequest transfer = ReadIsoRequest(packet->PayloadBytes());
  if (XferPtr record = PrepareTransfer(packet, kXferIsochronous, transfer)) {
    velPrintData(transfer.data.data(), static_cast<int>(transfer.data.size()));
    const MutexLock lock(mMutex);
    const _UsbIoXferInfo& given = *record.release();
    mDevice->IsoTransfer(transfer.epAddr, transfer.streamId, transfer.isoPackets, transfer.length, given.data,
                         given.reqBuf);
  }
  return 0;
}

int VirtUsb::onDroppedData(PacketPtr packet) {
  const CommandInfo& command = *FindCommand(packet->GetCommand());
  switch (command.reply) {
    case ReplyKind::kNone:
      break;
    case ReplyKind::kSync:
      return RefuseSync(std::move(packet), PayloadError::kDropped);
    case ReplyKind::kAsync:
      TransferRequest transfer = ReadTransferRequest(packet->PayloadBytes());
      transfer.error = PayloadError::kDropped;
      PrepareTransfer(packet, TransferType(command.command), transfer);
  }
  return 0;
}

int VirtUsb::onGetDeviceSpeed(PacketPtr packet) {
  return RunStatusCommand(std::move(packet), __func__, __LINE__, &VirtUDevice::GetDeviceSpeed);
}

int VirtUsb::onSetRedirPolicy(PacketPtr packet) {
  VEL_DEVICE_DEBUG(mDeviceBase, "ENTER");
  const auto request = ReadPolicyRequest(packet->PayloadBytes());
  if (!request) {
    return RefuseSync(std::move(packet));
  }
  const std::string policy(*request);
  const int ret = mDevice->SetRedirPolicy(policy.c_str());
  VEL_DEVICE_DEBUG(mDeviceBase, "onSetRedirPolicy policy:%s ret:%d", EscapeForLog(policy).c_str(), ret);
  return ReplyStatus(std::move(packet), ret);
}

int VirtUsb::doPingProcess(PacketPtr packet) {
  std::uint32_t streamId = 0;
  std::uint64_t timestamp = 0;
  if (packet->PayloadBytes().size() < sizeof streamId + sizeof timestamp) {
    LogBadPayload(*packet, PayloadError::kTooShort);  // And goes on: a ping is never refused.
  }
  packet->ReadU32(&streamId);
  packet->ReadU64(&timestamp);
  mDevice->Ping(streamId, timestamp);
  VEL_DEVICE_DEBUG(mDeviceBase, "streamid = %ld camera time test end at time  \n", static_cast<long>(streamId));
  return 0;
}

void VirtUsb::velPrintData(const std::uint8_t* data, int n) const {
  constexpr int kShown = 32;
  constexpr int kCell = 5;
  if (n <= 0 || oskeloLogIsOn(OSKELO_LOG_DEBUG) == 0) {
    return;
  }
  std::array<char, kShown * kCell + 1> text{};
  for (int i = 0; i < std::min(n, kShown); ++i) {
    static_cast<void>(std::snprintf(text.data() + std::ptrdiff_t{i} * kCell, kCell + 1, "0x%.2x ", unsigned{data[i]}));
  }
  VEL_DEVICE_DEBUG(mDeviceBase, "ret:%s", text.data());
}

}  // namespace vel
