#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cmd/Commands.h"
#include "cmd/Observing.h"
#include "cmd/console/Format.h"
#include "cmd/console/Output.h"
#include "cmd/console/Signals.h"
#include "cmd/console/UsageError.h"
#include "cmd/describe/UsbNames.h"
#include "cmd/devices/DeviceChannel.h"
#include "cmd/devices/EmulatedDevices.h"
#include "cmd/stream/GuestCamera.h"
#include "cmd/stream/PictureBytes.h"
#include "cmd/stream/PictureFile.h"
#include "cmd/stream/PictureReader.h"
#include "cmd/stream/Snapshot.h"
#include "cmd/stream/StreamReport.h"
#include "cmd/stream/StreamStatistics.h"
#include "observe/ObservedChannel.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

struct StreamOptions {
  std::string size;          // WIDTHxHEIGHT; empty: the camera's choice.
  std::uint64_t frames = 0;  // 0: no limit. Without either limit until interrupted.
  double seconds = 0;        // The same.
  double silence = 5;        // Seconds without a picture after which the camera has failed.
  bool untouched = false;    // Raw pictures stay raw.
  std::string file;          // Empty: the pictures are only counted.
  std::string snapshot;      // Empty: none.
};

using Clock = PictureReader::Clock;
using Presence = GuestCamera::Presence;

Clock::duration Seconds(double count) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(count));
}

constexpr std::int32_t kCompleted = 0;  // enum libusb_transfer_status
constexpr std::int32_t kTimedOut = 2;

std::optional<PictureSize> ParseSize(const std::string& text) {
  if (text.empty()) {
    return std::nullopt;
  }
  PictureSize size;
  const char* const end = text.data() + text.size();
  const auto width = std::from_chars(text.data(), end, size.width);
  if (width.ec == std::errc() && width.ptr != end && *width.ptr == 'x') {
    const auto height = std::from_chars(width.ptr + 1, end, size.height);
    if (height.ec == std::errc() && height.ptr == end) {
      return size;
    }
  }
  throw UsageError("\"" + text + "\" is no size: give WIDTHxHEIGHT, for example 640x480");
}

// Files that the pictures go to; opened before the camera is touched.
struct Outputs {
  explicit Outputs(const StreamOptions& options) {
    if (!options.file.empty()) {
      file.emplace(options.file);
    }
    if (!options.snapshot.empty()) {
      snapshotFile.emplace(options.snapshot);
    }
  }

  // Takes the picture over.
  void Take(PictureFormat format, std::vector<std::uint8_t> picture) {
    if (file) {
      file->Write(picture);
    }
    if (snapshotFile && IsKeyPicture(format, picture)) {
      snapshot.Keep(format, std::move(picture));
    }
  }

  void Finish(const PictureSize& size) {
    if (file) {
      file->Close();
    }
    if (snapshotFile) {
      snapshot.WritePng(*snapshotFile, size);
    }
  }

  std::optional<PictureFile> file;
  std::optional<PictureFile> snapshotFile;
  Snapshot snapshot;
};

// One stream, from the first read to the last picture that is wanted.
class StreamRun {
 public:
  StreamRun(GuestCamera& camera, const GuestCamera::Stream& stream, const StreamOptions& options, bool moduleHere,
            Outputs& outputs)
      : mCamera(camera), mStream(stream), mOptions(options), mModuleHere(moduleHere), mOutputs(outputs) {}

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
            .moduleHere = mModuleHere,
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
  const bool mModuleHere;
  Outputs& mOutputs;
  StreamStatistics mStatistics;
  LiveLine mLive;
  std::optional<PictureFormat> mFormat;
  Presence mPresence = Presence::kThere;
  std::string mLastFailure = "its reads are not answered";
  bool mInterrupted = false;
};

std::unique_ptr<GuestCamera> TakeCamera(RemoteDevice& remote, bool transcode, const CommonOptions& common) {
  try {
    return std::make_unique<GuestCamera>(remote, transcode);
  } catch (const RemoteError& error) {
    if (common.device != kEmulatedCamera || common.cameraSource == kTestCamera) {
      throw;
    }
    throw RemoteError(std::string(error.what()) + " (is the camera source \"" + common.cameraSource +
                      "\" there, and free?)");
  }
}

// As a guest ends a stream. What is interrupted at it is given back by the end of the session.
void GiveBack(GuestCamera& camera, PictureReader& reader) {
  try {
    reader.Withdraw();
    camera.Stop();
    camera.GiveBack();
  } catch (const Interrupted&) {
  }
}

// From the first request to the last, the device being given back then.
StreamResult Stream(RemoteDevice& remote, const std::optional<PictureSize>& size, const CommonOptions& common,
                    const StreamOptions& options, Outputs& outputs, const StopSignal& stop) {
  const auto cutOff = [&remote] { remote.Interrupt(); };
  std::optional<StopWatcher> opening(std::in_place, stop, cutOff);
  const std::unique_ptr<GuestCamera> camera = TakeCamera(remote, !options.untouched, common);
  const GuestCamera::Stream stream = camera->Negotiate(size);
  StreamRun run(*camera, stream, options, !IsRemoteDevice(common.device), outputs);
  PictureReader reader(remote, camera->Endpoint(), stream.payloadBytes);
  camera->Start(stream);
  opening.reset();
  const StopWatcher last(stop, cutOff, StopWatcher::kGrace);
  const StopWatcher first(stop, [&reader] { reader.Stop(); });
  run.Run(reader);
  GiveBack(*camera, reader);
  StreamResult result = run.Result();
  if (result.figures.frames == 0 && result.interrupted) {
    throw Interrupted();
  }
  if (result.figures.frames == 0) {
    throw RemoteError("the camera sent no picture: " + run.LastFailure());
  }
  return result;
}

// Streams a camera until enough has come or `stop` is raised; throws Interrupted when no picture had come by then.
int RunStream(const CommonOptions& common, const StreamOptions& options, const StopSignal& stop) {
  const std::optional<PictureSize> size = ParseSize(options.size);
  Observer observer(ObserverOptions(common, false));
  std::unique_ptr<PacketChannel> channel =
      std::make_unique<ObservedChannel>(OpenDevice(common.device, common, stop, true), observer.Watch(common.device));
  Outputs outputs(options);
  auto remote = std::make_unique<RemoteDevice>(std::move(channel));
  std::optional<StreamResult> result;
  try {
    result = Stream(*remote, size, common, options, outputs, stop);
  } catch (const RemoteError& error) {
    const Clock::time_point begin = Clock::now();
    remote.reset();
    const std::chrono::duration<double> taken = Clock::now() - begin;
    throw RemoteError(error.what() + (taken < std::chrono::seconds(1)
                                          ? std::string()
                                          : Format("; giving it back took %.0f seconds more", taken.count())));
  }
  outputs.Finish({result->stream.mode.width, result->stream.mode.height});
  Print(common.json ? StreamJson(*result).dump(2) + "\n" : StreamText(*result));
  return 0;
}

}  // namespace

Subcommand AddStream(CLI::App& app, CommonOptions& common) {
  const auto options = std::make_shared<StreamOptions>();
  CLI::App* const line =
      app.add_subcommand("stream", "Stream a camera as a guest's driver would, and save its pictures");
  AddAnyDevice(*line, common);
  line->add_option("--size", options->size, "Of the pictures, in pixels; the camera's choice without")
      ->type_name("WxH");
  const CLI::Validator aboveZero(
      [](const std::string& text) {
        return text.find_first_of("123456789") == std::string::npos || text.starts_with('-')
                   ? "\"" + text + "\" is no number above 0"
                   : std::string();
      },
      "");
  CLI::Option_group* const until = line->add_option_group("until", "As long as; until interrupted without");
  until->add_option("--frames", options->frames, "This many pictures")->type_name("N")->check(aboveZero);
  until->add_option("--seconds", options->seconds, "This long")->type_name("S")->check(aboveZero);
  until->require_option(0, 1);
  line->add_option("--silence", options->silence, "Without a picture for so long, the camera has failed")
      ->type_name("S")
      ->check(aboveZero)
      ->capture_default_str();
  line->add_flag("--no-transcode", options->untouched,
                 "Pictures as the camera gives them; without, raw ones come as H.264");
  line->add_option("-o,--output", options->file, "Write the pictures, one behind the other")->type_name("FILE");
  line->add_option("--snapshot", options->snapshot, "Decode a picture and write it as PNG")->type_name("FILE.png");
  AddJson(*line, common);
  AddObserveOptions(*line, common);
  line->footer(
      "Latency is what can be seen from this side: the time from when a read is the oldest one in flight to the\n"
      "reply with its picture. The camera's interval between two pictures is in it.");
  return {line, [&common, options] {
            const CaughtSignals signals;
            return RunStream(common, *options, signals.Stop());
          }};
}

}  // namespace vel
