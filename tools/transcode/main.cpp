// The program virtusb-transcode: a file's frames through the module's camera pipeline, to try it
// without a camera.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "FrameSource.h"
#include "StreamWriter.h"
#include "TimedPipeline.h"
#include "os/Program.h"
#include "os/StandardStreams.h"
#include "oskelo/log.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFailed = 1;
constexpr int kUsage = 2;

// At full speed: as many as the decoder takes before its first picture was fetched. One more is
// refused or thinned.
constexpr std::uint32_t kInFlight = 2;
// How long frames that fail may hold up the next one.
constexpr int kFailedFrameMs = 200;

struct Options {
  std::string input;
  std::string output;
  std::string size;
  double rate = 0;  // Frames per second; 0: full speed; below 0: the file's own.
  bool json = false;
};

struct Summary {
  std::uint32_t in = 0;
  std::uint32_t out = 0;
  std::uint32_t failed = 0;  // Could not be decoded.
  double seconds = 0;
  double bitRate = 0;  // Bit/s at the rate that the frames are meant to have.
  vel::PipelineTimes times;

  std::uint32_t Thinned() const { return in - failed - out; }
};

// One line that is written over on a terminal, and now and then a line elsewhere.
class Progress {
 public:
  void Show(std::uint32_t in, std::uint32_t out) {
    const Clock::time_point now = Clock::now();
    if (now < mNext) {
      return;
    }
    static_cast<void>(std::fprintf(stderr, mTerminal ? "\r%u frames in, %u out" : "%u frames in, %u out\n", in, out));
    mNext = now + (mTerminal ? std::chrono::milliseconds(200) : std::chrono::seconds(5));
  }
  void End() const {
    if (mTerminal) {
      static_cast<void>(std::fputs("\r\033[K", stderr));
    }
  }

 private:
  const bool mTerminal = vel::IsErrorTerminal();
  Clock::time_point mNext = Clock::now() + std::chrono::milliseconds(500);
};

Summary Transcode(const Options& options) {
  vel::FrameSource source(options.input, options.size);
  const double rate = options.rate > 0 ? options.rate : source.Rate();
  vel::TimedPipeline pipeline;
  if (pipeline.Init(static_cast<std::uint16_t>(source.Width()), static_cast<std::uint16_t>(source.Height()),
                    source.Type(), vel::UVC_FRAME_TYPE_H264, nullptr) != 0) {
    throw std::runtime_error("cannot encode pictures of " + std::to_string(source.Width()) + "x" +
                             std::to_string(source.Height()) + "; --log error says why");
  }
  vel::StreamWriter writer(pipeline, options.output);
  Progress progress;
  Summary summary;
  const Clock::time_point begin = Clock::now();
  while (vel::UVCFramePtr frame = source.Next()) {
    if (options.rate != 0) {
      std::this_thread::sleep_until(
          begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(summary.in / rate)));
    } else {
      pipeline.AwaitRoom(kInFlight, kFailedFrameMs);
    }
    pipeline.Enqueue(std::move(frame));
    progress.Show(++summary.in, writer.Frames());
  }
  pipeline.AwaitRoom(1, kFailedFrameMs);
  summary.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  writer.Finish();
  progress.End();
  summary.out = writer.Frames();
  summary.times = pipeline.Times();
  if (source.Type() == vel::UVC_FRAME_TYPE_MJPEG) {
    summary.failed = summary.in - static_cast<std::uint32_t>(summary.times.decode.size());
  }
  if (summary.out == 0) {
    throw std::runtime_error("no frame of " + options.input + " came out");
  }
  summary.bitRate = static_cast<double>(writer.Bytes()) * 8 * rate / summary.out;
  return summary;
}

double Percentile(vel::StageTimes times, double share) {
  if (times.empty()) {
    return 0;
  }
  std::sort(times.begin(), times.end());
  return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))];
}

void Print(const Summary& summary) {
  std::printf("frames in %u, out %u, thinned %u, not decoded %u\n", summary.in, summary.out, summary.Thinned(),
              summary.failed);
  std::printf("bit rate %.0f kbit/s, %.1f frames/s\n", summary.bitRate / 1000, summary.in / summary.seconds);
  const auto stage = [](const char* name, const vel::StageTimes& times) {
    if (!times.empty()) {
      std::printf("%-9s p50 %7.2f ms, p99 %7.2f ms\n", name, Percentile(times, 0.50), Percentile(times, 0.99));
    }
  };
  stage("decode", summary.times.decode);
  stage("encode", summary.times.encode);
  stage("hand-over", summary.times.handOver);
}

void PrintJson(const Summary& summary) {
  const auto stage = [](const vel::StageTimes& times) {
    return nlohmann::json{{"frames", times.size()}, {"p50", Percentile(times, 0.50)}, {"p99", Percentile(times, 0.99)}};
  };
  const nlohmann::json document = {
      {"framesIn", summary.in},
      {"framesOut", summary.out},
      {"thinned", summary.Thinned()},
      {"notDecoded", summary.failed},
      {"bitRate", summary.bitRate},
      {"seconds", summary.seconds},
      {"milliseconds",
       {{"decode", stage(summary.times.decode)},
        {"encode", stage(summary.times.encode)},
        {"handOver", stage(summary.times.handOver)}}},
  };
  std::printf("%s\n", document.dump(2).c_str());
}

int Fail(int status, const std::string& text) {
  static_cast<void>(std::fprintf(stderr, "virtusb-transcode: %s\n", text.c_str()));
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    vel::PrepareStandardStreams();
    const std::vector<std::string> words = vel::ProgramArguments(argc, argv);
    std::vector<const char*> arguments;
    std::ranges::transform(words, std::back_inserter(arguments), [](const std::string& word) { return word.c_str(); });
    CLI::App app("Runs a file of MJPEG or raw YUYV frames through the camera pipeline into an H.264 stream.",
                 "virtusb-transcode");
    app.allow_windows_style_options(false);  // A path is a path.
    Options options;
    std::string level = "off";
    app.set_version_flag("--version", VIRTUSB_VERSION);
    app.add_option("IN", options.input, "Any file with MJPEG or raw YUYV video that FFmpeg reads")->required();
    app.add_option("-o,--output", options.output, "The H.264 stream to write")->type_name("FILE")->required();
    app.add_option("--size", options.size, "Of the pictures of a raw YUYV file without header")->type_name("WxH");
    CLI::Option* rate =
        app.add_option("--rate", options.rate, "Not at full speed but so many frames per second, or as the file says");
    rate->expected(0, 1)->type_name("N")->check(CLI::PositiveNumber);
    app.add_flag("--json", options.json, "One JSON document");
    app.add_option("--log", level, "Show the log from this level on")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warn", "error", "off"}))
        ->capture_default_str();
    try {
      app.parse(argc, arguments.data());
    } catch (const CLI::Success& asked) {
      return app.exit(asked);
    } catch (const CLI::ParseError& error) {
      return Fail(kUsage, std::string(error.what()) + " (see virtusb-transcode --help)");
    }
    if (rate->count() > 0 && options.rate == 0) {
      options.rate = -1;
    }
    oskeloLogSetLevel(oskeloLogLevelByName(level.c_str()));
    av_log_set_level(level == "off" ? AV_LOG_QUIET : AV_LOG_INFO);
    const Summary summary = Transcode(options);
    options.json ? PrintJson(summary) : Print(summary);
    return std::fflush(stdout) == 0 ? 0 : Fail(kFailed, "cannot write to standard output");
  } catch (const std::exception& error) {
    return Fail(kFailed, error.what());
  }
}
