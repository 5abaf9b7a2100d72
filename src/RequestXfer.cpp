#include "RequestXfer.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/HeapBlock.h"
#include "protocol/IsoTable.h"

namespace vel {
namespace {

// Of a bulk or interrupt reply, before its data: stream id and status.
constexpr std::uint32_t kReplyFields = 8;

// Room that a reply may hold in vain, so that its data is not copied.
constexpr std::size_t kMaxIdleRoom = 4096;

void CopyGiven(const TransferRequest& transfer, std::uint8_t* block) {
  if (!transfer.data.empty()) {
    std::memcpy(block, transfer.data.data(), transfer.data.size());
  }
}

// A block for the data of a transfer, never null for want of bytes: a record without data is a failed one.
HeapBlock NewDataBlock(const TransferRequest& transfer) {
  HeapBlock block(static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(transfer.length, 1))));
  if (block == nullptr) {
    return nullptr;
  }
  CopyGiven(transfer, block.get());
  // Of the filler that an IN request left out only the packet table is read before it is overwritten.
  const std::size_t table = std::min<std::size_t>(IsoTableSize(transfer.isoPackets), transfer.length);
  std::fill(block.get() + std::min(transfer.data.size(), table), block.get() + table, std::uint8_t{0});
  return block;
}

}  // namespace

XferPtr MakeRequestXfer(std::unique_ptr<VelPacket>& request, const TransferRequest& transfer, bool inPlace) {
  constexpr std::size_t kContext = sizeof(TransferContext);
  std::unique_ptr<VelPacket> none;
  if (!inPlace) {
    HeapBlock block = NewDataBlock(transfer);
    XferPtr info = block == nullptr ? nullptr : MakePacketXfer(kContext, none, block.get(), transfer.length, none);
    if (info != nullptr) {
      static_cast<void>(block.release());
    }
    return info;
  }
  if ((transfer.epAddr & kDirectionIn) == 0) {
    const std::ptrdiff_t offset = transfer.data.empty() ? 0 : transfer.data.data() - request->GetPayload();
    return MakePacketXfer(kContext, request, request->PayloadRoom().data() + offset, transfer.length, none);
  }
  auto reply = VelPacket::TryMake(transfer.length + kReplyRoom, kReplyFields + transfer.length);
  if (reply == nullptr) {
    return nullptr;
  }
  std::uint8_t* const data = reply->PayloadRoom().data() + kReplyFields;
  CopyGiven(transfer, data);
  return MakePacketXfer(kContext, reply, data, transfer.length, transfer.data.empty() ? request : none);
}

std::unique_ptr<VelPacket> TakeReplyPacket(_UsbIoXferInfo& info, std::uint32_t capacity) {
  const std::uint32_t wanted = kReplyFields + info.length;
  VelPacket* const packet = IsIn(info) ? DataPacket(info) : nullptr;
  const bool fits = packet != nullptr && packet->PayloadRoom().size() <= 2 * std::size_t{wanted} + kMaxIdleRoom;
  return fits && packet->Restart(capacity, wanted) ? TakeDataPacket(info) : nullptr;
}

}  // namespace vel
