#include "policys/stream/UVCFrameIntake.h"

#include <algorithm>
#include <utility>

#include "base/Clock.h"
#include "base/VelLog.h"

namespace vel {

UVCFrameIntake::UVCFrameIntake(UVCFrameManager& frames, UVCStreamTally& tally, std::uint32_t frameSize)
    : mFrames(frames), mTally(tally), mFrameSize(frameSize) {}

void UVCFrameIntake::TakePackets(const _UsbIoXferInfo& info) {
  mAssembler.ParseFrameData({info.data, info.length}, info.isoPacketNum);
}

void UVCFrameIntake::TakePayload(const _UsbIoXferInfo& info) {
  mAssembler.ParsePayload({info.data, info.length});
}

void UVCFrameIntake::TakeWholeFrame(_UsbIoXferInfo& info) {
  const std::int64_t now = WallClockMs();
  VEL_DEBUG("frame interval [%lld], timstamp [%lld]", static_cast<long long>(now - mLastWholeFrame.value_or(now)),
            static_cast<long long>(now));
  mLastWholeFrame = now;
  if (info.length == 0 || info.length > mFrameSize) {
    return;
  }
  HeapBlock next = FrameBlocks::Take(mFrameSize);
  if (next == nullptr || !mTally.AddPending()) {
    FrameBlocks::Give(std::move(next), mFrameSize);
    return;
  }
  mBlock.reset(std::exchange(info.data, next.release()));
  mAssembler.HandOn({mBlock.get(), info.length});
}

std::span<std::uint8_t> UVCFrameIntake::NextBlock() {
  if (mBlock == nullptr) {
    mBlock = FrameBlocks::Take(mFrameSize);
  }
  return {mBlock.get(), mBlock == nullptr ? 0 : mFrameSize};
}

void UVCFrameIntake::TakeFrame(std::span<std::uint8_t> frame, const UVCFrameStamp& stamp) {
  UVCFramePtr record = MakeUvcFrame(std::move(mBlock), static_cast<std::uint32_t>(frame.size()), stamp.index);
  if (record == nullptr) {
    return;
  }
  record->timestamp = stamp.timestamp;
  record->deltaTime = stamp.deltaTime;
  mTally.FrameCompleted(stamp.index, stamp.timestamp);
  if (mFrames.EnqueueFrame(record.get()) == 0) {
    static_cast<void>(record.release());
  }
}

}  // namespace vel
