#ifndef VEL_UVC_UVC_FRAME_ASSEMBLER_H
#define VEL_UVC_UVC_FRAME_ASSEMBLER_H

#include <cstdint>
#include <optional>
#include <span>

#include "uvc/UVCFrameAssembly.h"
#include "uvc/UVCFrameReceiver.h"

namespace vel {

// Turns the payloads of one stream into frames. A new stream is a new object.
//
// A frame is complete when the frame identifier toggles or a payload carries end-of-frame. Payloads with the error bit
// and those shorter than their header count for nothing. What would make the frame larger than its block is lost, the
// frame stays. A frame without data is not handed on: header-only payloads may repeat end-of-frame.
//
// Not synchronised: one thread at a time.
class UVCFrameAssembler {
 public:
  // The receiver outlives this object. `headerLengthCounts`: see UVCPayloadHeader::SizeOf.
  explicit UVCFrameAssembler(UVCFrameReceiver& receiver, bool headerLengthCounts = false)
      : mReceiver(receiver), mHeaderLengthCounts(headerLengthCounts) {}
  UVCFrameAssembler(const UVCFrameAssembler&) = delete;
  UVCFrameAssembler& operator=(const UVCFrameAssembler&) = delete;
  ~UVCFrameAssembler() = default;

  // A completed isochronous transfer: `packets` records of protocol/IsoTable.h, then what they point to. Packets that
  // lie outside of `data` are skipped with an Error line each.
  void ParseFrameData(std::span<const std::uint8_t> data, std::uint32_t packets);

  // A completed bulk transfer: one payload.
  void ParsePayload(std::span<const std::uint8_t> payload) { TakePacket(0, payload); }

 private:
  void TakePacket(std::uint32_t index, std::span<const std::uint8_t> packet);
  bool Append(std::span<const std::uint8_t> bytes);
  void SwapUVCFrame();

  UVCFrameReceiver& mReceiver;
  const bool mHeaderLengthCounts;
  std::optional<UVCFrameAssembly> mFrame;  // None before its first data.
  bool mFid = false;
};

}  // namespace vel

#endif
