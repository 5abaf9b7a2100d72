#ifndef VIRTUSB_HOST_CMD_STREAM_STREAM_STATISTICS_H
#define VIRTUSB_HOST_CMD_STREAM_STREAM_STATISTICS_H

#include <chrono>
#include <cstdint>
#include <optional>

#include "cmd/stream/PictureReader.h"
#include "observe/LatencyHistogram.h"

namespace vel {

// A stream in numbers.
struct StreamFigures {
  std::uint64_t frames = 0;
  std::uint64_t timeouts = 0;     // Reads for which no picture came in time.
  std::uint64_t broken = 0;       // Replies without a whole picture, timeouts aside.
  double seconds = 0;             // From the start to the latest reply.
  double framesPerSecond = 0;     // From the first picture to the latest; 0 with fewer than two.
  double firstMilliseconds = 0;   // From the start to the first picture.
  std::uint64_t cameraBytes = 0;  // Of the pictures as the camera gave them.
  std::uint64_t wireBytes = 0;    // Of the replies to reads, packet headers included.
  // Of a read, from when it was the oldest in flight to its picture. Holds the camera's own interval.
  double waitP50 = 0;  // Milliseconds.
  double waitP99 = 0;
  double cpuMillisecondsPerFrame = 0;  // All threads of this process, the module's among them.
};

// Counts while a stream runs. One thread.
class StreamStatistics {
 public:
  using Clock = PictureReader::Clock;

  // The stream is about to be started.
  StreamStatistics();

  // `cameraBytes`: what the picture took before it was transcoded.
  void AddPicture(const PictureReader::Arrival& arrival, std::uint64_t cameraBytes);
  void AddTimeout(const PictureReader::Arrival& arrival);
  void AddBroken(const PictureReader::Arrival& arrival);

  Clock::time_point Begin() const { return mBegin; }
  // Of the latest picture; the start before there is one.
  Clock::time_point LastPicture() const { return mLastPicture.value_or(mBegin); }
  std::uint64_t Frames() const { return mFrames; }
  StreamFigures Figures() const;

 private:
  void AddReply(const PictureReader::Arrival& arrival);

  const Clock::time_point mBegin;
  const std::chrono::microseconds mCpuBegin;
  Clock::time_point mLastReply;
  std::optional<Clock::time_point> mFirstPicture;
  std::optional<Clock::time_point> mLastPicture;
  std::uint64_t mFrames = 0;
  std::uint64_t mTimeouts = 0;
  std::uint64_t mBroken = 0;
  std::uint64_t mCameraBytes = 0;
  std::uint64_t mWireBytes = 0;
  LatencyHistogram mWaits;
};

}  // namespace vel

#endif
