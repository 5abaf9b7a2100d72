#include "policys/stream/UVCFrameIntake.h"

#include <utility>

#include "base/Clock.h"
#include "base/VelLog.h"
#include "codec/FrameBlocks.h"

namespace vel {

UVCFrameIntake::UVCFrameIntake(UVCFrameManager& frames, UVCStreamTally& tally, const UVCCameraReader::Source& source)
    : mFrames(frames), mTally(tally), mSource(source), mAssembler(*this, source.headerLengthCounts) {}

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
  if (info.length == 0 || info.length > mSource.frameSize) {
    return;
  }
  HeapBlock next = FrameBlocks::Take(mSource.frameSize);
  if (next == nullptr || !mTally.AddPending()) {
    FrameBlocks::Give(std::move(next), mSource.frameSize);
    return;
  }
  mBlock.reset(std::exchange(info.data, next.release()));
  HandOn(std::exchange(info.length, mSource.frameSize));
}

std::span<std::uint8_t> UVCFrameIntake::NextBlock() {
  if (mBlock == nullptr) {
    mBlock = FrameBlocks::Take(mSource.frameSize);
  }
  return {mBlock.get(), mBlock == nullptr ? 0 : mSource.frameSize};
}

void UVCFrameIntake::TakeFrame(std::span<std::uint8_t> frame) {
  if (frame.size() < mSource.pictureSize) {
    if (const std::uint32_t count = mShortPictures.Count(); count > 0) {
      VEL_ERROR("a picture of %zu bytes instead of %u is dropped, %u of them", frame.size(), mSource.pictureSize,
                count);
    }
  } else if (mTally.AddPending()) {
    HandOn(frame.size());
  }
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
