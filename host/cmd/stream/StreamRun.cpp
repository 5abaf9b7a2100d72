#include "cmd/stream/StreamRun.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/describe/UsbNames.h"
#include "cmd/stream/PictureBytes.h"
#include "cmd/stream/PictureReader.h"
#include "cmd/stream/StreamStatistics.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

using Clock = PictureReader::Clock;
using Presence = GuestCamera::Presence;

Clock::duration Seconds(double count) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(count));
}

constexpr std::int32_t kCompleted = 0;  // enum libusb_transfer_status
constexpr std::int32_t kTimedOut = 2;

// One stream, from the first read to the last picture that is wanted.
class StreamRun {
 public:
  StreamRun(GuestCamera& camera, const GuestCamera::Stream& stream, const StreamOptions& options,
            StreamOutputs& outputs)
      : mCamera(camera), mStream(stream), mOptions(options), mOutputs(outputs) {}

  // Why there was no picture lately, for people.
  const std::string& LastFailure() const { return mLastFailure; }

  // Throws RemoteError when the camera goes away or shows nothing any more.
  void Run(PictureReader& reader) {
    try {
      Read(reader);
    } catch (const Interrupted&) {
      mInterrupted = true;
    }
  }

  StreamResult Result() const {
    return {.camera = mCamera.Name(),
            .stream = mStream,
            .format = mFormat.value_or(mStream.mode.format),
            .figures = mStatistics.Figures(),
            .interrupted = mInterrupted,
            .file = mOptions.file,
            .snapshot = mOptions.snapshot};
  }

 private:
  void Read(PictureReader& reader) {
    reader.Start();
    while (!IsDone()) {
      std::optional<PictureReader::Arrival> arrival = reader.Next(NextDeadline());
      if (reader.IsStopped()) {
        mInterrupted = true;
        return;
      }
      if (arrival) {
        Take(*std::move(arrival));
      }
      if (Clock::now() >= mLive.Due()) {
        mLive.Show(mStatistics.Figures());
      }
      if (Clock::now() >= SilentAt()) {
        Note("no picture any more, giving the camera back");
        throw RemoteError(
            Format("the camera has sent no picture for %g seconds: %s", mOptions.silence, mLastFailure.c_str()));
      }
    }
  }

  bool IsDone() const {
    return (mOptions.frames > 0 && mStatistics.Frames() >= mOptions.frames) ||
           (mOptions.seconds > 0 && Clock::now() >= End());
  }
  Clock::time_point End() const { return mStatistics.Begin() + Seconds(mOptions.seconds); }
  // A camera that has shown nothing until then has failed, whatever its reads say.
  Clock::time_point SilentAt() const { return mStatistics.LastPicture() + Seconds(mOptions.silence); }
  Clock::time_point NextDeadline() const {
    const Clock::time_point due = std::min(mLive.Due(), SilentAt());
    return mOptions.seconds > 0 ? std::min(due, End()) : due;
  }

  void Take(PictureReader::Arrival arrival) {
    const std::int32_t status = arrival.reply.status;
    if (status == kTimedOut || status == RemoteDevice::kNoDevice) {
      mStatistics.AddTimeout(arrival);
      mLastFailure = "its reads time out";
      // One that has not answered is not asked again: each time would take a second.
      mPresence = mPresence == Presence::kSilent ? mPresence : mCamera.Ask();
      if (mPresence == Presence::kGone || status == RemoteDevice::kNoDevice) {
        throw RemoteError("the camera is gone");
      }
      if (mPresence == Presence::kSilent) {
        mLastFailure = "it answers nothing any more";
      }
      return;
    }
    const auto format = status == kCompleted ? FormatOfPicture(arrival.reply.data, mStream) : std::nullopt;
    mFormat = mFormat ? mFormat : format;
    if (!format || format != mFormat) {
      mStatistics.AddBroken(arrival);
      mLastFailure = status == kCompleted ? Format("what it sends is no whole picture, the last has %zu bytes",
                                                   arrival.reply.data.size())
                                          : "its reads end with \"" + std::string(TransferStatusName(status)) + "\"";
      return;
    }
    const bool encodedOnTheWay = *format == PictureFormat::kH264 && mStream.mode.format == PictureFormat::kYuyv;
    mStatistics.AddPicture(arrival, encodedOnTheWay ? mStream.pictureBytes : arrival.reply.data.size());
    mOutputs.Take(*format, std::move(arrival.reply.data));
  }

  GuestCamera& mCamera;
  const GuestCamera::Stream mStream;
  const StreamOptions& mOptions;
  StreamOutputs& mOutputs;
  StreamStatistics mStatistics;
  LiveLine mLive;
  std::optional<PictureFormat> mFormat;
  Presence mPresence = Presence::kThere;
  std::string mLastFailure = "its reads are not answered";
  bool mInterrupted = false;
};

// As a guest ends a stream. What is interrupted at it is given back by the end of the session.
void GiveBack(GuestCamera& camera, PictureReader& reader) {
  try {
    reader.Withdraw();
    camera.Stop();
    camera.GiveBack();
  } catch (const Interrupted&) {
  }
}

}  // namespace

StreamResult StreamCamera(GuestCamera& camera, RemoteDevice& remote, const StreamOptions& options,
                          StreamOutputs& outputs, const StopSignal& stop) {
  const auto cutOff = [&remote] { remote.Interrupt(); };
  std::optional<StopWatcher> opening(std::in_place, stop, cutOff);
  const GuestCamera::Stream stream = camera.Negotiate(options.size);
  StreamRun run(camera, stream, options, outputs);
  PictureReader reader(remote, camera.Endpoint(), stream.payloadBytes);
  camera.Start(stream);
  opening.reset();
  const StopWatcher last(stop, cutOff, StopWatcher::kGrace);
  const StopWatcher first(stop, [&reader] { reader.Stop(); });
  run.Run(reader);
  GiveBack(camera, reader);
  StreamResult result = run.Result();
  if (result.figures.frames == 0 && result.interrupted) {
    throw Interrupted();
  }
  if (result.figures.frames == 0) {
    throw RemoteError("the camera sent no picture: " + run.LastFailure());
  }
  return result;
}

}  // namespace vel
