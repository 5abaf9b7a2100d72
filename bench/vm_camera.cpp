// How late a guest's program gets the pictures of the emulated camera, which its own driver reads: from complete at
// their source to the program's buffer, and how much of that is neither encoding nor decoding. The kernel's probes say
// when what happened in the commands. `vm_camera LABEL WIDTH HEIGHT VIRTUSB MODULE PID...`, whose processor time is
// told. One line, times in milliseconds, p50 p99:
//   LABEL WIDTHxHEIGHT sent/s sent dropped  late late  beyond beyond  encode decode link guest  machine% PID%...
// encode is the codec alone, decode is H.264 to YUYV; link is from the source to the far side without encode, guest
// from there to the program without decode: medians.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FunctionProbes.h"
#include "GuestBench.h"
#include "Percentile.h"
#include "io/DummyUsbIo/DummyCamera.h"
#include "oskelo/camera.h"

namespace {

using vel::bench::FunctionProbes;
using vel::bench::Percentile;
using vel::bench::Require;
using Happened = std::vector<FunctionProbes::Happened>;
using Bytes = std::vector<std::uint8_t>;

constexpr double kWarmUp = 1.5;  // Seconds in which the programs run for the first time.
constexpr double kMeasured = 6;
constexpr double kLatest = 5;            // A picture is none that is older: they repeat after 7.7.
constexpr std::size_t kStep = 1021;      // Between the bytes by which a picture is known again: encoding changes it.
constexpr unsigned kNumbers = 256;       // Pictures repeat then.
constexpr unsigned kNumberOfByte = 171;  // The first byte is 3 times the number.

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Bytes Sample(std::span<const std::uint8_t> picture) {
  Bytes sample;
  for (std::size_t at = 0; at < picture.size(); at += kStep) {
    sample.push_back(picture[at]);
  }
  return sample;
}

double Difference(const Bytes& one, const Bytes& other) {
  double sum = one.size() == other.size() ? 0 : std::numeric_limits<double>::infinity();
  for (std::size_t i = 0; i < std::min(one.size(), other.size()); ++i) {
    const int difference = one[i] - other[i];
    sum += difference * difference;
  }
  return sum;
}

struct Received {
  double time;
  Bytes sample;
};

// What the guest's driver gives a program for this long, on the capture library's thread.
std::vector<Received> Capture(std::uint32_t width, std::uint32_t height, double& machine,
                              std::vector<std::pair<std::string, double>>& processes) {
  std::vector<Received> received;
  Require(CamOpen("") == 0, "no camera");
  _CameraParam param{.width = width, .height = height, .pixelFormat = CAM_FORMAT_YUYV, .reserved = 0};
  Require(CamSetParam("", &param) == 0, "the camera has no such size");
  CamSetStreamCallback(
      "",
      [](unsigned char* data, unsigned int length, void* context) {
        const double time = Now();
        static_cast<std::vector<Received>*>(context)->push_back({time, Sample({data, length})});
      },
      &received);
  std::thread stream([] { CamStreamOn(""); });
  const auto pass = [](double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); };
  pass(kWarmUp);
  const double begin = Now();
  machine = -vel::bench::Busy();
  for (auto& [process, busy] : processes) {
    busy = -vel::bench::BusyOf(process);
  }
  pass(kMeasured);
  const double percent = 100 / (Now() - begin);
  machine = (machine + vel::bench::Busy()) * percent;
  for (auto& [process, busy] : processes) {
    busy = (busy + vel::bench::BusyOf(process)) * percent;
  }
  CamStreamOff("");
  stream.join();
  CamClose("");
  std::erase_if(received, [begin](const Received& each) { return each.time < begin; });
  return received;
}

// The first that follows, or null.
const FunctionProbes::Happened* Next(const Happened& all, const char* event, double after) {
  auto each = std::ranges::upper_bound(all, after, {}, &FunctionProbes::Happened::time);
  each = std::find_if(each, all.end(), [event](const auto& happened) { return happened.event == event; });
  return each == all.end() ? nullptr : &*each;
}

struct Measured {
  std::vector<double> late, beyond, encode, decode, link, guest;
};

// The way of one picture.
void Follow(const Happened& all, double source, double received, std::uint8_t firstByte, Measured& measured) {
  double encode = 0;
  double decode = 0;
  double sent = source;
  for (const auto* begin = Next(all, "encode", source); begin != nullptr; begin = Next(all, "encode", begin->time)) {
    const auto* end = Next(all, "encoded", begin->time);
    if (begin->value == firstByte && end != nullptr) {
      encode = end->time - begin->time;
      sent = end->time;
      break;
    }
  }
  const auto* arrived = Next(all, "arrived", sent);
  if (arrived == nullptr) {
    return;
  }
  for (const auto& [begins, ends] : {std::pair{"take", "taken"}, {"write", "written"}}) {
    const auto* begin = encode > 0 ? Next(all, begins, arrived->time) : nullptr;
    const auto* end = begin == nullptr ? nullptr : Next(all, ends, begin->time);
    decode += end == nullptr || end->time > received ? 0 : end->time - begin->time;
  }
  measured.late.push_back(1e3 * (received - source));
  measured.beyond.push_back(1e3 * (received - source - encode - decode));
  measured.encode.push_back(1e3 * encode);
  measured.decode.push_back(1e3 * decode);
  measured.link.push_back(1e3 * (arrived->time - source - encode));
  measured.guest.push_back(1e3 * (received - arrived->time - decode));
}

}  // namespace

int main(int argc, char** argv) {
  Require(argc >= 7, "usage: vm_camera LABEL WIDTH HEIGHT VIRTUSB MODULE PID...");
  const auto width = static_cast<std::uint32_t>(std::stoul(argv[2]));
  const auto height = static_cast<std::uint32_t>(std::stoul(argv[3]));
  const std::string command = argv[4];
  const std::string module = argv[5];
  const std::string encode = "_ZN3vel13FFmpegEncoder6encodeEPK7AVFrameP8AVPacket";
  const std::string take = "_ZN3vel11YuyvDecoder4TakeESt4spanIKhLm18446744073709551615EE";
  const std::string write = "_ZN3vel11YuyvDecoder5WriteERSt6vectorIhSaIhEE";
  const std::string arrived =
      "_ZN3vel9FarCamera9TakeReplyERKNS_14TransferAnswerERSt10unique_ptrINS_9VelPacketESt14default_deleteIS5_EE";
  const FunctionProbes probes({{.event = "source",
                                .program = module,
                                .symbol = "_ZN3vel16UvcStreamContext7DeliverESt4spanIKhLm18446744073709551615EEPKv",
                                .fetch = "byte=+0(%si):u8"},
                               {.event = "encode", .program = module, .symbol = encode, .fetch = "byte=+0(+0(%si)):u8"},
                               {.event = "encoded", .program = module, .symbol = encode, .atReturn = true},
                               {.event = "arrived", .program = command, .symbol = arrived},
                               {.event = "take", .program = command, .symbol = take},
                               {.event = "taken", .program = command, .symbol = take, .atReturn = true},
                               {.event = "write", .program = command, .symbol = write},
                               {.event = "written", .program = command, .symbol = write, .atReturn = true}});
  double machine = 0;
  std::vector<std::pair<std::string, double>> processes;
  for (int i = 6; i < argc; ++i) {
    processes.emplace_back(argv[i], 0);
  }
  const std::vector<Received> pictures = Capture(width, height, machine, processes);
  const Happened all = probes.Take();
  Happened sources;
  std::ranges::copy_if(all, std::back_inserter(sources), [](const auto& each) { return each.event == "source"; });
  std::vector<Bytes> samples;
  Bytes picture(std::size_t{2} * width * height);
  for (unsigned n = 0; n < kNumbers; ++n) {
    vel::DummyCamera::Paint(picture, width, height, n);
    samples.push_back(Sample(picture));
  }

  Measured measured;
  std::vector<std::size_t> seen;  // Their places among the source's.
  std::size_t strange = 0;
  for (const Received& each : pictures) {
    double least = std::numeric_limits<double>::infinity();
    std::size_t best = sources.size();
    for (std::size_t i = seen.empty() ? 0 : seen.back() + 1; i < sources.size() && sources[i].time < each.time; ++i) {
      const auto number = static_cast<unsigned>(sources[i].value) * kNumberOfByte % kNumbers;
      const double difference = Difference(samples[number], each.sample);
      if (sources[i].time > each.time - kLatest && difference < least) {
        least = difference;
        best = i;
      }
    }
    if (best == sources.size()) {
      ++strange;
      continue;
    }
    seen.push_back(best);
    Follow(all, sources[best].time, each.time, static_cast<std::uint8_t>(sources[best].value), measured);
  }
  Require(measured.late.size() > 1, "no pictures");
  Require(strange <= 1, std::to_string(strange) + " pictures are none of the source's, or not other ones");
  const std::size_t sent = seen.back() - seen.front() + 1;
  const double seconds = sources[seen.back()].time - sources[seen.front()].time;
  static_cast<void>(std::printf("%s %ux%u %.1f %zu %zu", argv[1], width, height,
                                static_cast<double>(sent - 1) / seconds, sent, sent - seen.size()));
  for (const auto* values : {&measured.late, &measured.beyond}) {
    static_cast<void>(std::printf(" %.2f %.2f", Percentile(*values, 0.5), Percentile(*values, 0.99)));
  }
  for (const auto* values : {&measured.encode, &measured.decode, &measured.link, &measured.guest}) {
    static_cast<void>(std::printf(" %.2f", Percentile(*values, 0.5)));
  }
  static_cast<void>(std::printf(" %.0f", machine));
  for (const auto& [process, busy] : processes) {
    static_cast<void>(std::printf(" %.0f", busy));
  }
  static_cast<void>(std::puts(""));
  return 0;
}
