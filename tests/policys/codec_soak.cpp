// Video through the pipeline at full speed, with the process's memory watched: codec_soak [SECONDS OF VIDEO]. MJPEG in,
// H.264 out, a broken frame now and then. Fails when memory grows after the first tenth.
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "oskelo/log.h"
#include "policys/UVCFrameManager.h"
#include "support/Limits.h"
#include "support/Scene.h"

namespace vel::test {
namespace {

constexpr int kWidth = 1280;
constexpr int kHeight = 720;
constexpr int kWaitMs = 60000;  // Only a failure waits that long.
constexpr long kAllowedGrowthKiB = 4096;

long PeakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// One frame in; returns whether it came out, where it has to.
bool Step(UVCFrameManager& manager, const Bytes& jpeg, std::uint32_t number) {
  const bool broken = number % 97 == 96;
  const std::span<const std::uint8_t> input(jpeg.data(), jpeg.size() / (broken ? 2 : 1));
  if (manager.EnqueueFrame(MakeFrame(input, number).release()) != 0) {
    return false;
  }
  while (!broken) {
    const UVCFramePtr frame(manager.DequeueFrame(kWaitMs));
    if (frame == nullptr || frame->index == number) {
      return frame != nullptr;
    }
  }
  return true;
}

int Run(std::uint32_t frames) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  const Scene scene(kWidth, kHeight);
  std::vector<Bytes> jpegs;
  for (int i = 0; i < 50; ++i) {
    jpegs.push_back(EncodeJpeg(scene.Draw(i), kWidth, kHeight));
  }
  UVCFrameManager manager(UVC_FRAME_TYPE_MJPEG, UVC_FRAME_TYPE_H264);
  if (manager.Init(kWidth, kHeight, UVC_FRAME_TYPE_MJPEG, UVC_FRAME_TYPE_H264, nullptr) != 0) {
    return 1;
  }
  long settled = 0;
  for (std::uint32_t number = 0; number < frames; ++number) {
    if (number == std::max(frames / 10, 250U)) {
      settled = PeakKiB();
    }
    if (!Step(manager, jpegs[number % jpegs.size()], number)) {
      std::printf("frame %u did not come out\n", number);
      return 1;
    }
  }
  const long growth = settled == 0 ? 0 : PeakKiB() - settled;
  std::printf("%u frames, peak memory %ld KiB, growth after the first tenth %ld KiB\n", frames, PeakKiB(), growth);
  // A sanitizer keeps freed memory for a while.
  return growth > kAllowedGrowthKiB && !kSanitized ? 1 : 0;
}

}  // namespace
}  // namespace vel::test

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : (vel::kSanitized ? 2 : 20);
  return vel::test::Run(25 * static_cast<unsigned>(std::max(seconds, 1)));
}
