#include "io/LibusbTransfer.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <utility>

#include "base/VelLog.h"
#include "protocol/IsoTable.h"

namespace vel {
namespace {

// What the packets of one isochronous transfer may ask for altogether.
constexpr std::uint64_t kMaxIsoPayload = 64ULL << 20U;

std::span<libusb_iso_packet_descriptor> Packets(libusb_transfer& transfer) {
  return {transfer.iso_packet_desc, static_cast<std::size_t>(transfer.num_iso_packets)};
}

// A packet never moved more than it had room for, whatever is reported.
unsigned Moved(const libusb_iso_packet_descriptor& packet) {
  return std::min(packet.actual_length, packet.length);
}

bool HasTable(const _UsbIoXferInfo& info) {
  return info.data != nullptr && info.isoPacketNum > 0 && IsoTableSize(info.isoPacketNum) <= info.length;
}

}  // namespace

LibusbTransfer::LibusbTransfer(LibusbHandle& owner, _UsbIoXferInfo& info, LibusbTransferPtr transfer,
                               HeapBlock isoBuffer, Failed failed)
    : mOwner(owner),
      mInfo(&info),
      mIsoBuffer(std::move(isoBuffer)),
      mFailed(failed),
      mPending(std::move(transfer), IdSpace(info) == kModuleIds ? LibusbPendingTransfer::kModuleKey : info.localXferId,
               info.callback) {
  mPending.transfer->user_data = this;
}

int LibusbTransfer::Submit(LibusbHandle& owner, libusb_device_handle* handle, _UsbIoXferInfo& info,
                           libusb_transfer_type type, Failed failed) {
  if (info.length > INT_MAX || (info.data == nullptr && info.length > 0)) {
    return LIBUSB_ERROR_INVALID_PARAM;
  }
  LibusbTransferPtr transfer(libusb_alloc_transfer(0));
  if (transfer == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  libusb_fill_bulk_transfer(transfer.get(), handle, info.epAddr, info.data, static_cast<int>(info.length),
                            FuncAsyncTransferCB, nullptr, 0);
  transfer->type = static_cast<unsigned char>(type);
  return Submit(std::unique_ptr<LibusbTransfer>(new (std::nothrow)
                                                    LibusbTransfer(owner, info, std::move(transfer), nullptr, failed)));
}

int LibusbTransfer::SubmitIso(LibusbHandle& owner, libusb_device_handle* handle, _UsbIoXferInfo& info, Failed failed) {
  if (!HasTable(info)) {
    return LIBUSB_ERROR_INVALID_PARAM;
  }
  const std::size_t tableSize = IsoTableSize(info.isoPacketNum);
  LibusbTransferPtr transfer(libusb_alloc_transfer(static_cast<int>(info.isoPacketNum)));
  if (transfer == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  transfer->num_iso_packets = static_cast<int>(info.isoPacketNum);
  std::uint64_t total = 0;
  std::size_t index = 0;
  for (libusb_iso_packet_descriptor& packet : Packets(*transfer)) {
    packet.length = LoadIsoRecord(info.data, index++).length;
    total += packet.length;
  }
  // The data of an IN record is the table alone: what is behind it is not read.
  if (total > (IsIn(info) ? kMaxIsoPayload : std::min<std::uint64_t>(kMaxIsoPayload, info.length - tableSize))) {
    return LIBUSB_ERROR_INVALID_PARAM;
  }
  const std::size_t payload = static_cast<std::size_t>(total);
  // The completion of an OUT transfer writes the packet table into its buffer.
  const std::size_t room = std::max<std::size_t>(IsIn(info) ? payload : std::max(payload, tableSize), 1);
  HeapBlock buffer(static_cast<std::uint8_t*>(std::malloc(room)));
  if (buffer == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  if (!IsIn(info)) {
    std::memcpy(buffer.get(), info.data + tableSize, payload);
    std::memset(buffer.get() + payload, 0, room - payload);
  }
  libusb_fill_iso_transfer(transfer.get(), handle, info.epAddr, buffer.get(), static_cast<int>(payload),
                           static_cast<int>(info.isoPacketNum), FuncAsyncTransferCB, nullptr, 0);
  return Submit(std::unique_ptr<LibusbTransfer>(
      new (std::nothrow) LibusbTransfer(owner, info, std::move(transfer), std::move(buffer), failed)));
}

int LibusbTransfer::Submit(std::unique_ptr<LibusbTransfer> self) {
  if (self == nullptr) {
    return LIBUSB_ERROR_NO_MEM;
  }
  LibusbTransfer* const submitted = self.release();
  const int result = submitted->mOwner.Submit(submitted->mPending);
  if (result < 0) {
    self.reset(submitted);
  }
  return result;
}

// Thread that handles events.
void LIBUSB_CALL LibusbTransfer::FuncAsyncTransferCB(libusb_transfer* transfer) {
  if (transfer->user_data == nullptr) {
    VEL_ERROR("Invalid int_transfer->user_data!");
    libusb_free_transfer(transfer);
    return;
  }
  auto* const pending = static_cast<LibusbTransfer*>(transfer->user_data);
  const LibusbCompletion completion(pending->mOwner, pending->mPending);
  const std::unique_ptr<LibusbTransfer> self(pending);  // Gone when the completion ends.
  self->Complete();
}

void LibusbTransfer::Complete() {
  libusb_transfer& transfer = *mPending.transfer;
  if (transfer.status != LIBUSB_TRANSFER_COMPLETED) {
    VEL_ERROR("Libusb transfer status error[%d]!, transfer_type[%d]", static_cast<int>(transfer.status),
              int{transfer.type});
    if (mFailed == Failed::kHoldsNothing || !TakeResult()) {
      FailXfer(mInfo, transfer.status);
      return;
    }
    mInfo->status = transfer.status;
    mInfo->reserved |= kXferHoldsPart;
    CompleteXfer(mInfo);
    return;
  }
  mInfo->status = kXferCompleted;
  if (!TakeResult()) {
    FailXfer(mInfo, kXferError);
    return;
  }
  VEL_DEBUG("async transfer[%d] cb, streamid[0x%x] length[%d] actual_length[%d]", int{transfer.type}, mInfo->streamId,
            transfer.length, transfer.actual_length);
  CompleteXfer(mInfo);
}

// What was moved becomes the record's data. False when there is no memory.
bool LibusbTransfer::TakeResult() {
  const libusb_transfer& transfer = *mPending.transfer;
  const auto moved = static_cast<std::uint32_t>(std::clamp(transfer.actual_length, 0, transfer.length));
  mInfo->length = moved;
  if (transfer.type != LIBUSB_TRANSFER_TYPE_ISOCHRONOUS) {
    return true;
  }
  if (IsIn(*mInfo)) {
    return TakeIsoIn();
  }
  TakeIsoOut(moved);
  return true;
}

// The result of an OUT transfer is its own buffer, with the packet table written over the head of it.
void LibusbTransfer::TakeIsoOut(std::uint32_t moved) {
  std::size_t index = 0;
  for (const libusb_iso_packet_descriptor& packet : Packets(*mPending.transfer)) {
    IsoPacketRecord record = LoadIsoRecord(mIsoBuffer.get(), index);
    record.length = packet.length;
    record.actual_length = packet.actual_length;
    record.status = static_cast<std::uint32_t>(packet.status);
    StoreIsoRecord(mIsoBuffer.get(), index++, record);
  }
  ReplaceXferData(*mInfo, mIsoBuffer.release(), moved);
}

// The result of an IN transfer is the packet table and, behind it without gaps, what the packets brought. False when
// there is no memory.
bool LibusbTransfer::TakeIsoIn() {
  const std::span packets = Packets(*mPending.transfer);
  std::size_t length = packets.size() * sizeof(IsoPacketRecord);
  for (const libusb_iso_packet_descriptor& packet : packets) {
    length += Moved(packet);
  }
  HeapBlock result(static_cast<std::uint8_t*>(std::malloc(length)));
  if (result == nullptr) {
    return false;
  }
  const std::uint8_t* source = mIsoBuffer.get();
  std::size_t offset = packets.size() * sizeof(IsoPacketRecord);
  std::size_t index = 0;
  for (const libusb_iso_packet_descriptor& packet : packets) {
    StoreIsoRecord(result.get(), index++,
                   {.offset = static_cast<std::uint32_t>(offset),
                    .length = packet.length,
                    .actual_length = Moved(packet),
                    .status = static_cast<std::uint32_t>(packet.status)});
    std::memcpy(result.get() + offset, source, Moved(packet));
    source += packet.length;
    offset += Moved(packet);
  }
  ReplaceXferData(*mInfo, result.release(), static_cast<std::uint32_t>(length));
  return true;
}

}  // namespace vel
