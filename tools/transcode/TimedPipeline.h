#ifndef VIRTUSB_TOOLS_TRANSCODE_TIMED_PIPELINE_H
#define VIRTUSB_TOOLS_TRANSCODE_TIMED_PIPELINE_H

#include <chrono>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "policys/UVCFrameManager.h"
#include "vel/Mutex.h"

namespace vel {

// Milliseconds that a stage took for each frame.
using StageTimes = std::vector<double>;

struct PipelineTimes {
  StageTimes decode;    // From the frame's entry to its decoded picture; empty without a decoder.
  StageTimes encode;    // From there to its access unit, with conversions and the wait for the encoder.
  StageTimes handOver;  // From there to the consumer.
};

// The frame manager as it is, with a watch on what passes between its stages.
class TimedPipeline : public UVCFrameManager {
 public:
  TimedPipeline() : UVCFrameManager(UVC_FRAME_TYPE_YUYV, UVC_FRAME_TYPE_H264) {}

  // Any thread.
  void Enqueue(UVCFramePtr frame);
  UVCFramePtr Dequeue(int timeoutMs);

  // Waits until fewer than `frames` frames that went in are newer than the newest one that the
  // consumer took, at most `timeoutMs` milliseconds: a frame that fails never comes out.
  void AwaitRoom(std::uint32_t frames, int timeoutMs);

  PipelineTimes Times();

  void OnFinishDecodePicture(const DecodedPicture& picture) override;
  void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int result) override;

 private:
  using Clock = std::chrono::steady_clock;
  // Milliseconds since the frame was last seen, if it was; sees it now.
  void Mark(std::uint32_t index, StageTimes& stage) VEL_REQUIRES(mMutex);

  Mutex mMutex;
  CondVar mTaken;
  std::unordered_map<std::uint32_t, Clock::time_point> mSeen VEL_GUARDED_BY(mMutex);
  PipelineTimes mTimes VEL_GUARDED_BY(mMutex);
  std::uint32_t mIn VEL_GUARDED_BY(mMutex) = 0;      // Frames that went in.
  std::uint32_t mNewest VEL_GUARDED_BY(mMutex) = 0;  // One more than the index of the newest that was taken.
};

}  // namespace vel

#endif
