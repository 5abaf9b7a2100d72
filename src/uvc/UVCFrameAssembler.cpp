#include "uvc/UVCFrameAssembler.h"

#include <algorithm>
#include <cstddef>

#include "base/VelLog.h"
#include "protocol/IsoTable.h"
#include "uvc/UVCPayloadHeader.h"

namespace vel {

void UVCFrameAssembler::ParseFrameData(std::span<const std::uint8_t> data, std::uint32_t packets) {
  const std::size_t count = std::min<std::size_t>(packets, data.size() / sizeof(IsoPacketRecord));
  for (std::uint32_t i = 0; i < count; ++i) {
    const IsoPacketRecord record = LoadIsoRecord(data.data(), i);
    if (record.actual_length == 0) {
      continue;
    }
    if (record.offset > data.size() || record.actual_length > data.size() - record.offset) {
      VEL_ERROR("iso packet %u: %u bytes at %u are not in the transfer's %zu", i, record.actual_length, record.offset,
                data.size());
      continue;
    }
    TakePacket(i, data.subspan(record.offset, record.actual_length));
  }
}

void UVCFrameAssembler::TakePacket(std::uint32_t index, std::span<const std::uint8_t> packet) {
  const std::size_t headerSize = UVCPayloadHeader::SizeOf(packet, mHeaderLengthCounts);
  if (packet.size() < headerSize) {
    return;
  }
  const UVCPayloadHeader header(packet);
  if (header.Error()) {
    return;
  }
  if (header.Fid() != mFid) {
    if (mFrame.has_value() && !mFrame->Empty()) {
      VEL_DEBUG("[UVC tuning] fid @ %d, header: 0x%x", static_cast<int>(index), unsigned{header.Info()});
    }
    SwapUVCFrame();
  }
  mFid = header.Fid();
  if (!Append(packet.subspan(headerSize))) {
    VEL_DEBUG("Error frame length: %d, iso num: %d, actural len: %d", static_cast<int>(mFrame->Length()),
              static_cast<int>(index), static_cast<int>(packet.size()));
    ParseUVCFrameHeader(packet.data(), static_cast<int>(packet.size()));
  }
  if (header.Eof()) {
    VEL_DEBUG("[UVC tuning]eof @ %d, header: 0x%x", static_cast<int>(index), unsigned{header.Info()});
    SwapUVCFrame();
  }
}

bool UVCFrameAssembler::Append(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) {
    return true;
  }
  if (!mFrame.has_value()) {
    mFrame.emplace(mReceiver.NextBlock());
  }
  return mFrame->Append(bytes);
}

void UVCFrameAssembler::SwapUVCFrame() {
  if (!mFrame.has_value() || mFrame->Empty()) {
    mFrame.reset();
    return;
  }
  const std::span<std::uint8_t> frame = mFrame->Bytes();
  mFrame.reset();
  mReceiver.TakeFrame(frame);
}

}  // namespace vel
