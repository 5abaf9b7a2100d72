#ifndef VEL_POLICYS_STREAM_UVC_FRAME_INTAKE_H
#define VEL_POLICYS_STREAM_UVC_FRAME_INTAKE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "codec/FrameBlocks.h"
#include "io/UsbIoXferInfo.h"
#include "policys/UVCFrameManager.h"
#include "policys/stream/FailureLine.h"
#include "policys/stream/UVCCameraReader.h"
#include "policys/stream/UVCStreamTally.h"
#include "uvc/UVCFrameAssembler.h"
#include "uvc/UVCFrameReceiver.h"

namespace vel {

// Makes frames of what a camera's transfers brought and hands them to the frame manager. Drops them, before anything
// more is spent on them, while as many wait for the remote side as may. A raw picture that is shorter than its size is
// dropped as well: packets of it were lost, and what is left shows every row behind them in another place.
//
// One thread at a time.
class UVCFrameIntake : private UVCFrameReceiver {
 public:
  // Manager and tally outlive this object.
  UVCFrameIntake(UVCFrameManager& frames, UVCStreamTally& tally, const UVCCameraReader::Source& source);
  ~UVCFrameIntake() override = default;
  UVCFrameIntake(const UVCFrameIntake&) = delete;
  UVCFrameIntake& operator=(const UVCFrameIntake&) = delete;

  // A transfer of packets behind their table, or of one payload.
  void TakePackets(const _UsbIoXferInfo& info);
  void TakePayload(const _UsbIoXferInfo& info);

  // A transfer that is a picture. Takes the record's block and leaves another one in its place, unless it is dropped.
  void TakeWholeFrame(_UsbIoXferInfo& info);

 private:
  std::span<std::uint8_t> NextBlock() override;
  void TakeFrame(std::span<std::uint8_t> frame) override;
  // Stamps the frame of so many bytes in mBlock.
  void HandOn(std::size_t length);

  UVCFrameManager& mFrames;
  UVCStreamTally& mTally;
  const UVCCameraReader::Source mSource;
  const FrameBlocks::User mBlocksUser;
  HeapBlock mBlock;  // Of the frame under assembly.
  UVCFrameAssembler mAssembler;
  FailureLine mShortPictures;
  std::uint32_t mFrameCounter = 0;
  std::optional<std::int64_t> mLastTimestamp;   // Milliseconds.
  std::optional<std::int64_t> mLastWholeFrame;  // Milliseconds.
};

}  // namespace vel

#endif
