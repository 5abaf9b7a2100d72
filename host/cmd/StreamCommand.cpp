#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "cmd/Commands.h"
#include "cmd/console/Format.h"
#include "cmd/console/Observing.h"
#include "cmd/console/Output.h"
#include "cmd/console/Signals.h"
#include "cmd/console/UsageError.h"
#include "cmd/devices/DeviceChannel.h"
#include "cmd/devices/EmulatedDevices.h"
#include "cmd/stream/GuestCamera.h"
#include "cmd/stream/StreamOutputs.h"
#include "cmd/stream/StreamReport.h"
#include "cmd/stream/StreamRun.h"
#include "observe/ObservedChannel.h"
#include "remote/StopWatcher.h"

namespace vel {
namespace {

PictureSize ParseSize(const std::string& text) {
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

std::unique_ptr<GuestCamera> TakeCamera(RemoteDevice& remote, bool transcode, const CommonOptions& common,
                                        const StopSignal& stop) {
  const StopWatcher cutOff(stop, [&remote] { remote.Interrupt(); });
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

// Streams a camera until enough has come or `stop` is raised; throws Interrupted when no picture had come by then.
int RunStream(const CommonOptions& common, const StreamOptions& options, const StopSignal& stop) {
  Observer observer(ObserverOptions(common, false));
  std::unique_ptr<PacketChannel> channel =
      std::make_unique<ObservedChannel>(OpenDevice(common.device, common, stop, true), observer.Watch(common.device));
  StreamOutputs outputs(options.file, options.snapshot);
  auto remote = std::make_unique<RemoteDevice>(std::move(channel));
  std::optional<StreamResult> result;
  try {
    const std::unique_ptr<GuestCamera> camera = TakeCamera(*remote, !options.untouched, common, stop);
    result = StreamCamera(*camera, *remote, options, outputs, stop);
  } catch (const RemoteError& error) {
    const auto begin = std::chrono::steady_clock::now();
    remote.reset();
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
    throw RemoteError(error.what() + (taken < std::chrono::seconds(1)
                                          ? std::string()
                                          : Format("; giving it back took %.0f seconds more", taken.count())));
  }
  result->moduleHere = !IsRemoteDevice(common.device);
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
  line->add_option_function<std::string>(
          "--size", [options](const std::string& text) { options->size = ParseSize(text); },
          "Of the pictures, in pixels; the camera's choice without")
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
