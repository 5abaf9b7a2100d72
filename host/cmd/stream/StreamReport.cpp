#include "cmd/stream/StreamReport.h"

#include <chrono>
#include <cstdint>
#include <cstdio>

#include "cmd/console/Format.h"
#include "os/StandardStreams.h"

namespace vel {
namespace {

constexpr std::chrono::seconds kLiveInterval{1};

const char* FormatName(PictureFormat format) {
  switch (format) {
    case PictureFormat::kYuyv:
      return "YUYV";
    case PictureFormat::kMjpeg:
      return "MJPEG";
    case PictureFormat::kH264:
      return "H.264";
    case PictureFormat::kOther:
      break;
  }
  return "other";
}

double AgreedRate(const GuestCamera::Stream& stream) {
  return stream.interval == 0 ? 0.0 : 1e7 / stream.interval;
}

// Bits per second that came over the wire.
double BitRate(const StreamFigures& figures) {
  return figures.seconds > 0 ? 8.0 * static_cast<double>(figures.wireBytes) / figures.seconds : 0.0;
}

std::string Megabytes(std::uint64_t bytes) {
  return Format("%.2f MB", static_cast<double>(bytes) / 1e6);
}

std::string Row(const char* name, const std::string& value, const std::string& note = "") {
  std::string row = Format("  %-20s %12s   %s", name, value.c_str(), note.c_str());
  row.erase(row.find_last_not_of(' ') + 1);
  return row + "\n";
}

}  // namespace

std::string StreamText(const StreamResult& result) {
  const StreamFigures& figures = result.figures;
  const GuestCamera::Stream& stream = result.stream;
  const bool changed = result.format != stream.mode.format;
  std::string text = Format("%s: %ux%u, %s at %.2f per second%s%s%s\n", result.camera.c_str(),
                            unsigned{stream.mode.width}, unsigned{stream.mode.height}, FormatName(stream.mode.format),
                            AgreedRate(stream), changed ? ", arrives as " : "",
                            changed ? FormatName(result.format) : "", result.interrupted ? " (interrupted)" : "");
  text += Row("frames", std::to_string(figures.frames));
  text += Row("frames per second", Format("%.2f", figures.framesPerSecond));
  text += Row("timeouts", std::to_string(figures.timeouts));
  if (figures.broken > 0) {
    text += Row("broken", std::to_string(figures.broken), "replies without a whole picture");
  }
  text += Row("from the camera", Megabytes(figures.cameraBytes),
              changed && result.format == PictureFormat::kH264 ? "as agreed, before transcoding" : "");
  text += Row("over the wire", Megabytes(figures.wireBytes),
              Format("%.2f %%, %.2f Mbit/s",
                     100.0 * static_cast<double>(figures.wireBytes) / static_cast<double>(figures.cameraBytes),
                     BitRate(figures) / 1e6));
  text += Row("first picture", Format("%.1f ms", figures.firstMilliseconds), "from starting the stream");
  text += Row("latency p50", Format("%.1f ms", figures.waitP50),
              "of a read until its picture, the camera's interval included");
  text += Row("latency p99", Format("%.1f ms", figures.waitP99));
  text += Row("CPU per frame", Format("%.2f ms", figures.cpuMillisecondsPerFrame),
              result.moduleHere ? "module and command" : "this command alone");
  if (!result.file.empty()) {
    text += "pictures in " + result.file + "\n";
  }
  if (!result.snapshot.empty()) {
    text += "snapshot in " + result.snapshot + "\n";
  }
  return text;
}

nlohmann::ordered_json StreamJson(const StreamResult& result) {
  const StreamFigures& figures = result.figures;
  const GuestCamera::Stream& stream = result.stream;
  const auto orNull = [](const std::string& path) { return path.empty() ? nlohmann::json() : nlohmann::json(path); };
  return {{"camera", result.camera},
          {"width", stream.mode.width},
          {"height", stream.mode.height},
          {"cameraFormat", FormatName(stream.mode.format)},
          {"cameraFramesPerSecond", AgreedRate(stream)},
          {"format", FormatName(result.format)},
          {"interrupted", result.interrupted},
          {"frames", figures.frames},
          {"timeouts", figures.timeouts},
          {"broken", figures.broken},
          {"seconds", figures.seconds},
          {"framesPerSecond", figures.framesPerSecond},
          {"bytesFromCamera", figures.cameraBytes},
          {"bytesOverWire", figures.wireBytes},
          {"firstPictureMilliseconds", figures.firstMilliseconds},
          {"latencyMilliseconds", {{"p50", figures.waitP50}, {"p99", figures.waitP99}}},
          {"cpuMillisecondsPerFrame", figures.cpuMillisecondsPerFrame},
          {"file", orNull(result.file)},
          {"snapshot", orNull(result.snapshot)}};
}

LiveLine::LiveLine() : mTerminal(IsErrorTerminal()), mDue(StreamStatistics::Clock::now() + kLiveInterval) {}

LiveLine::~LiveLine() {
  if (mTerminal) {
    static_cast<void>(std::fputs("\r\x1b[K", stderr));
  }
}

void LiveLine::Show(const StreamFigures& figures) {
  const double seconds = std::chrono::duration<double>(kLiveInterval).count();
  const std::string line = Format("%6llu pictures  %6.2f per second  %8.2f Mbit/s  latency p50 %.1f ms  timeouts %llu",
                                  static_cast<unsigned long long>(figures.frames),
                                  static_cast<double>(figures.frames - mLast.frames) / seconds,
                                  8.0 * static_cast<double>(figures.wireBytes - mLast.wireBytes) / seconds / 1e6,
                                  figures.waitP50, static_cast<unsigned long long>(figures.timeouts));
  static_cast<void>(std::fputs((mTerminal ? "\r" + line + "\x1b[K" : line + "\n").c_str(), stderr));
  static_cast<void>(std::fflush(stderr));
  mLast = figures;
  mDue += kLiveInterval;
}

}  // namespace vel
