#include "policys/stream/UVCFrameIntake.h"

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
  HandOn(info.length);
}

std::span<std::uint8_t> UVCFrameIntake::NextBlock() {
  if (mBlock == nullptr) {
    mBlock = FrameBlocks::Take(mFrameSize);
  }
  return {mBlock.get(), mBlock == nullptr ? 0 : mFrameSize};
}

void UVCFrameIntake::HandOn(std::size_t length) {
  UVCFramePtr frame = MakeUvcFrame(std::move(mBlock), static_cast<std::uint32_t>(length), mFrameCounter++);
  if (frame == nullptr) {
    return;
  }
  const std::int64_t now = WallClockMs();
  frame->timestamp = now;
  frame->deltaTime = now - mLastTimestamp.value_or(now);
  mLastTimestamp = now;
  VEL_DEBUG("[UVC tuning] Get new raw frame: index[%d] length[%d] timestamp[%lld] deltatime[%lld]\n",
            static_cast<int>(frame->index), static_cast<int>(length), static_cast<long long>(now),
            static_cast<long long>(frame->deltaTime));
  mTally.FrameCompleted(frame->index, now);
  if (mFrames.EnqueueFrame(frame.get()) == 0) {
    static_cast<void>(frame.release());
  }
}

}  // namespace vel
