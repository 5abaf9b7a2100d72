// What the camera path costs beside the encoder: the time from a picture that is complete at its
// source to the reply that is sent, and processor time, against an encoder alone on the same
// pictures, in turns within one run; and beside that, what waking a thread takes here, since a
// picture wakes the encoder's. `camera_bench [PICTURES]`, 30 a second.
#include <ctime>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "BenchCamera.h"
#include "EncoderTime.h"
#include "Percentile.h"
#include "oskelo/log.h"
#include "policys/UVCEncoder.h"
#include "support/Scene.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<std::uint8_t>;

constexpr auto kBetweenPictures = std::chrono::microseconds(33333);
// Drawn before, and shown again and again.
constexpr std::size_t kDrawnBytes = std::size_t{256} << 20U;
constexpr std::size_t kMostDrawn = 40;

// Of the whole process, milliseconds.
double ProcessorTime() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return 1e3 * static_cast<double>(now.tv_sec) + 1e-6 * static_cast<double>(now.tv_nsec);
}

double Milliseconds(Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

class Replies {
 public:
  void Sent() {
    const auto now = Clock::now();
    const vel::MutexLock lock(mMutex);
    mSent = now;
    ++mCount;
    mChanged.NotifyAll();
  }
  // When the next one was sent.
  Clock::time_point Await() {
    vel::MutexLock lock(mMutex);
    ++mAwaited;
    while (mCount < mAwaited) {
      mChanged.Wait(lock);
    }
    return mSent;
  }

 private:
  vel::Mutex mMutex;
  vel::CondVar mChanged;
  Clock::time_point mSent VEL_GUARDED_BY(mMutex);
  int mCount VEL_GUARDED_BY(mMutex) = 0;
  int mAwaited VEL_GUARDED_BY(mMutex) = 0;
};

// A thread that sleeps between two pictures, as the encoder's does.
class Sleeper {
 public:
  ~Sleeper() {
    {
      const vel::MutexLock lock(mMutex);
      mStop = true;
      mChanged.NotifyAll();
    }
    mThread.join();
  }
  // How long it takes until the thread runs.
  Clock::duration Wake() {
    const auto begin = Clock::now();
    vel::MutexLock lock(mMutex);
    mAsked = true;
    mChanged.NotifyAll();
    while (mAsked) {
      mChanged.Wait(lock);
    }
    return mRan - begin;
  }

 private:
  void Run() {
    vel::MutexLock lock(mMutex);
    while (!mStop) {
      if (mAsked) {
        mRan = Clock::now();
        mAsked = false;
        mChanged.NotifyAll();
      }
      mChanged.Wait(lock);
    }
  }

  vel::Mutex mMutex;
  vel::CondVar mChanged;
  Clock::time_point mRan VEL_GUARDED_BY(mMutex);
  bool mAsked VEL_GUARDED_BY(mMutex) = false;
  bool mStop VEL_GUARDED_BY(mMutex) = false;
  std::thread mThread{[this] { Run(); }};
};

void Measure(int width, int height, int pictures) {
  const vel::test::Scene scene(width, height);
  std::vector<Bytes> drawn;
  do {
    drawn.push_back(scene.Draw(static_cast<int>(drawn.size())));
  } while (drawn.size() < std::min(kMostDrawn, kDrawnBytes / drawn[0].size()));
  Replies replies;
  vel::BenchCamera camera(width, height, true, [&replies](std::size_t) { replies.Sent(); });
  vel::UVCEncoder encoder;
  if (encoder.Init(vel::UVC_ENCODER_TYPE_H264, width, height, nullptr, nullptr) != 0) {
    std::exit(1);
  }
  Bytes unit(drawn[0].size());
  Sleeper sleeper;
  std::vector<double> latency;
  std::vector<double> encoding;
  std::vector<double> beyond;
  std::vector<double> waking;
  double pathCpu = 0;
  double encoderCpu = 0;
  auto due = Clock::now();
  for (int i = 0; i < pictures; ++i) {
    const Bytes& picture = drawn[static_cast<std::size_t>(i) % drawn.size()];
    camera.Read();
    due += kBetweenPictures;
    std::this_thread::sleep_until(due);
    const double cpuBefore = ProcessorTime();
    const auto begin = Clock::now();
    camera.Picture(picture);
    const auto sent = replies.Await();
    const auto encodedOnTheWay = vel::bench::TakeEncoderTime();
    pathCpu += ProcessorTime() - cpuBefore;

    std::this_thread::sleep_until(due + kBetweenPictures / 2);
    const double cpuBetween = ProcessorTime();
    const auto encodeBegin = Clock::now();
    std::uint32_t length = 0;
    encoder.Encode(picture.data(), static_cast<std::uint32_t>(picture.size()), unit.data(), &length);
    const auto encodeEnd = Clock::now();
    encoderCpu += ProcessorTime() - cpuBetween;
    latency.push_back(Milliseconds(sent - begin));
    encoding.push_back(Milliseconds(encodeEnd - encodeBegin));
    // The codec library's own time, which differs from one time to the next, is taken out of both.
    beyond.push_back(Milliseconds((sent - begin) - encodedOnTheWay) -
                     Milliseconds((encodeEnd - encodeBegin) - vel::bench::TakeEncoderTime()));
    std::this_thread::sleep_until(due + 3 * kBetweenPictures / 4);
    waking.push_back(Milliseconds(sleeper.Wake()));
  }
  std::printf("| %dx%d | %.2f / %.2f | %.2f / %.2f | %.2f / %.2f | %.2f / %.2f | %.2f | %.2f | %.2f |\n", width, height,
              vel::bench::Percentile(latency, 0.5), vel::bench::Percentile(latency, 0.99),
              vel::bench::Percentile(encoding, 0.5), vel::bench::Percentile(encoding, 0.99),
              vel::bench::Percentile(beyond, 0.5), vel::bench::Percentile(beyond, 0.99),
              vel::bench::Percentile(waking, 0.5), vel::bench::Percentile(waking, 0.99), pathCpu / pictures,
              encoderCpu / pictures, pathCpu / encoderCpu);
}

}  // namespace

int main(int argc, char** argv) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  const int pictures = std::max(argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 300, 1);
  std::printf("Milliseconds a picture, %d pictures; p50 / p99.\n\n", pictures);
  std::printf(
      "| size | source to reply | encoder alone | beyond it | waking a thread | processor time | encoder's alone | "
      "ratio |\n"
      "|---|---|---|---|---|---|---|---|\n");
  for (const auto& [width, height] :
       {std::array{640, 480}, std::array{1280, 720}, std::array{1920, 1080}, std::array{3840, 2160}}) {
    Measure(width, height, pictures);
  }
}
