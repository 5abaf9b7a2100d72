// Round trips of 64 bytes out to the emulated vendor device that is attached at BUS:ADDRESS, by libusb, as a keyboard's
// or a serial adapter's transfers make them. `vm_trips BUS:ADDRESS COUNT`. One line, in milliseconds: p50 p99
#include <libusb-1.0/libusb.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "GuestBench.h"
#include "Percentile.h"
#include "support/GuestDevice.h"

// NOLINTNEXTLINE(bugprone-exception-escape): without memory it ends, as it should.
int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  using vel::bench::Percentile;
  vel::bench::Require(argc == 3, "usage: vm_trips BUS:ADDRESS COUNT");
  constexpr std::uint8_t kBulkOut = 0x01;
  constexpr unsigned kTimeoutMs = 20000;
  const vel::GuestDevice device(argv[1]);
  std::array<std::uint8_t, 64> bytes{};
  std::vector<double> times;
  for (unsigned long i = std::strtoul(argv[2], nullptr, 10); i > 0; --i) {
    const Clock::time_point begin = Clock::now();
    int moved = 0;
    vel::bench::Require(
        libusb_bulk_transfer(device.Handle(), kBulkOut, bytes.data(), bytes.size(), &moved, kTimeoutMs) == 0,
        "a round trip failed");
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
  }
  static_cast<void>(std::printf("%.0f %.0f\n", Percentile(times, 0.5), Percentile(times, 0.99)));
  return 0;
}
