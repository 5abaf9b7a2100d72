#include "cmd/stream/StreamStatistics.h"

#include "os/Program.h"
#include "protocol/VelPacket.h"

namespace vel {
namespace {

// In front of an isochronous reply's data: the packet's header, stream id, status, packet count.
constexpr std::uint64_t kReplyFields = VelPacket::kHeaderSize + 12;

double Seconds(StreamStatistics::Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

StreamStatistics::StreamStatistics() : mBegin(Clock::now()), mCpuBegin(ProcessCpuTime()), mLastReply(mBegin) {}

void StreamStatistics::AddReply(const PictureReader::Arrival& arrival) {
  mLastReply = arrival.time;
  mWireBytes += kReplyFields + arrival.reply.data.size();
}

void StreamStatistics::AddPicture(const PictureReader::Arrival& arrival, std::uint64_t cameraBytes) {
  AddReply(arrival);
  mWaits.Add(arrival.waited);
  mLastPicture = arrival.time;
  mFirstPicture = mFirstPicture.value_or(arrival.time);
  mCameraBytes += cameraBytes;
  ++mFrames;
}

void StreamStatistics::AddTimeout(const PictureReader::Arrival& arrival) {
  AddReply(arrival);
  ++mTimeouts;
}

void StreamStatistics::AddBroken(const PictureReader::Arrival& arrival) {
  AddReply(arrival);
  ++mBroken;
}

StreamFigures StreamStatistics::Figures() const {
  StreamFigures figures{.frames = mFrames,
                        .timeouts = mTimeouts,
                        .broken = mBroken,
                        .seconds = Seconds(mLastReply - mBegin),
                        .cameraBytes = mCameraBytes,
                        .wireBytes = mWireBytes,
                        .waitP50 = mWaits.Milliseconds(0.50),
                        .waitP99 = mWaits.Milliseconds(0.99)};
  if (mFrames > 0) {
    const auto cpu = std::chrono::duration<double, std::milli>(ProcessCpuTime() - mCpuBegin);
    figures.firstMilliseconds = Seconds(*mFirstPicture - mBegin) * 1000;
    figures.cpuMillisecondsPerFrame = cpu.count() / static_cast<double>(mFrames);
  }
  if (mFrames > 1 && *mLastPicture > *mFirstPicture) {
    figures.framesPerSecond = static_cast<double>(mFrames - 1) / Seconds(*mLastPicture - *mFirstPicture);
  }
  return figures;
}

}  // namespace vel
