// What one picture of a camera costs beside time when it is not transcoded: heap allocations, and
// bytes copied per byte of it. Exact, not measured.
#include <array>
#include <cstdio>
#include <vector>

#include "BenchCamera.h"
#include "counting_hooks.h"
#include "oskelo/log.h"

int main() {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  constexpr std::uint64_t kPictures = 100;
  std::printf("| size | heap allocations | bytes copied per byte |\n|---|---|---|\n");
  for (const auto& [width, height] : {std::array{640, 480}, std::array{1280, 720}}) {
    vel::Mutex mutex;
    vel::CondVar changed;
    std::uint64_t replies = 0;
    vel::BenchCamera camera(width, height, false, [&](std::size_t) {
      const vel::MutexLock lock(mutex);
      ++replies;
      changed.NotifyAll();
    });
    const std::vector<std::uint8_t> picture(static_cast<std::size_t>(2 * width * height));
    const auto stream = [&](std::uint64_t pictures) {
      for (std::uint64_t i = 0; i < pictures; ++i) {
        camera.Read();
        camera.Picture(picture);
        vel::MutexLock lock(mutex);
        while (replies == 0) {
          changed.Wait(lock);
        }
        --replies;
      }
    };
    stream(10);  // Blocks to recycle are there.
    StartCounting();
    stream(kPictures);
    const Counts counts = StopCounting();
    std::printf("| %dx%d | %.2f | %.3f |\n", width, height,
                static_cast<double>(counts.allocations) / static_cast<double>(kPictures),
                static_cast<double>(counts.bytesCopied) / static_cast<double>(kPictures * picture.size()));
  }
}
