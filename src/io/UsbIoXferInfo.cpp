#include "io/UsbIoXferInfo.h"

#include <cstdlib>
#include <exception>
#include <new>

#include "base/VelLog.h"
#include "protocol/VelPacket.h"

namespace vel {
namespace {

// What MakePacketXfer makes. The context lies behind it.
struct alignas(std::max_align_t) PacketXfer {
  _UsbIoXferInfo info;  // The first: a record is freed by its own address.
  std::unique_ptr<VelPacket> packet;
};

PacketXfer& WholeOf(_UsbIoXferInfo& info) {
  return reinterpret_cast<PacketXfer&>(info);
}

void FreeData(const _UsbIoXferInfo& info) {
  if ((info.reserved & kXferDataInPacket) == 0) {
    std::free(info.data);
  }
}

}  // namespace

void ReplaceXferData(_UsbIoXferInfo& info, std::uint8_t* data, std::uint32_t length) {
  FreeData(info);
  info.reserved &= ~kXferDataInPacket;
  info.data = data;
  info.length = length;
}

void CompleteXfer(_UsbIoXferInfo* info) noexcept {
  if (info->callback == nullptr) {
    FreeXfer(info);
    return;
  }
  const std::uint32_t streamId = info->streamId;
  try {
    info->callback->UsbIoXferCb(info);
  } catch (const std::exception& error) {
    VEL_ERROR("completion of streamid[%u]: %s", streamId, error.what());
  }
}

void FailXfer(_UsbIoXferInfo* info, std::int32_t status) noexcept {
  info->status = status;
  ReplaceXferData(*info, nullptr, 0);
  CompleteXfer(info);
}

void FreeXfer(_UsbIoXferInfo* info) {
  FreeData(*info);
  std::free(info->isoDescCopy);
  if ((info->reserved & kXferHoldsContext) != 0) {
    WholeOf(*info).~PacketXfer();
  } else {
    std::free(info->reqBuf);
  }
  std::free(info);
}

XferPtr MakeXfer() {
  return XferPtr(static_cast<_UsbIoXferInfo*>(std::calloc(1, sizeof(_UsbIoXferInfo))));
}

XferPtr MakePacketXfer(std::size_t contextBytes, std::unique_ptr<VelPacket>& packet, std::uint8_t* data,
                       std::uint32_t length, std::unique_ptr<VelPacket>& spent) {
  const std::size_t size = sizeof(PacketXfer) + contextBytes;
  void* block = VelPacket::TakeMemory(spent, size);
  if (block == nullptr) {
    block = std::malloc(size);
  }
  if (block == nullptr) {
    return nullptr;
  }
  // Every field by name: g++ clears what it may clear as a whole by one instruction that takes as long as a malloc.
  auto* const whole = new (block) PacketXfer;
  // Every field by name: g++ clears what it may clear as a whole by one instruction that takes as long as a malloc.
  whole->info = {
      .reserved = kXferHoldsContext | (packet != nullptr ? kXferDataInPacket : 0),
      .xferType = 0,
      .streamId = 0,
      .localXferId = 0,
      .epAddr = 0,
      .status = 0,
      .isoPacketNum = 0,
      .reqBuf = static_cast<std::uint8_t*>(block) + sizeof(PacketXfer),
      .length = length,
      .data = data,
      .callback = nullptr,
      .isoDescLen = 0,
      .isoDescCopy = nullptr,
      .owner = nullptr,
  };
  whole->packet = std::move(packet);
  return XferPtr(&whole->info);
}

VelPacket* DataPacket(_UsbIoXferInfo& info) {
  return (info.reserved & kXferDataInPacket) == 0 ? nullptr : WholeOf(info).packet.get();
}

std::unique_ptr<VelPacket> TakeDataPacket(_UsbIoXferInfo& info) {
  if (DataPacket(info) == nullptr) {
    return nullptr;
  }
  info.reserved &= ~kXferDataInPacket;
  info.data = nullptr;
  return std::move(WholeOf(info).packet);
}

}  // namespace vel
