#ifndef VIRTUSB_BENCH_GUEST_BENCH_H
#define VIRTUSB_BENCH_GUEST_BENCH_H

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Percentile.h"

// For the programs that measure inside of a virtual machine.
namespace vel::bench {

inline void Require(bool holds, const std::string& otherwise) {
  if (!holds) {
    static_cast<void>(std::fprintf(stderr, "%s\n", otherwise.c_str()));
    std::exit(1);
  }
}

// Seconds that all processors have worked since the start.
inline double Busy() {
  std::ifstream file("/proc/stat");
  std::string cpu;
  std::array<double, 8> times{};  // user nice system idle iowait irq softirq steal
  file >> cpu;
  for (double& each : times) {
    file >> each;
  }
  return (times[0] + times[1] + times[2] + times[5] + times[6]) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Seconds that a process has worked, its threads together.
inline double BusyOf(const std::string& process) {
  std::ifstream file("/proc/" + process + "/stat");
  std::string text;
  std::getline(file, text);
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 3; i < 14; ++i) {  // To utime and stime, the 14th and 15th.
    fields >> skipped;
  }
  double user = 0;
  double system = 0;
  Require(static_cast<bool>(fields >> user >> system), "there is no process " + process);
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// What is measured of a way to a device, whatever takes it there.
using Clock = std::chrono::steady_clock;
inline constexpr int kLarge = 64 << 10;
inline constexpr int kInFlight = 16;
inline constexpr std::chrono::seconds kThroughputTime{3};

inline double Seconds(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

// Microseconds: the median of 300.
template <typename Operation>
double RoundTrip(Operation operation) {
  std::vector<double> times;
  for (unsigned i = 0; i < 300; ++i) {
    const Clock::time_point begin = Clock::now();
    Require(operation(), "a round trip failed");
    times.push_back(1e6 * Seconds(Clock::now() - begin));
  }
  return Percentile(times, 0.5);
}

struct Throughput {
  double megabytesPerSecond;
  double cpuMsPerMegabyte;  // Of the whole machine.
};

struct Stopwatch {
  double busy = Busy();
  Clock::time_point begin = Clock::now();

  Throughput Over(std::uint64_t bytes) const {
    const double megabytes = static_cast<double>(bytes) / 1e6;
    return {megabytes / Seconds(Clock::now() - begin), 1e3 * (Busy() - busy) / megabytes};
  }
};

// One line: LABEL control_us bulk_us in_MB/s in_cpu_ms/MB out_MB/s out_cpu_ms/MB
inline void PrintWay(const char* label, double control, double bulk, const Throughput& in, const Throughput& out) {
  static_cast<void>(std::printf("%s %.0f %.0f %.1f %.2f %.1f %.2f\n", label, control, bulk, in.megabytesPerSecond,
                                in.cpuMsPerMegabyte, out.megabytesPerSecond, out.cpuMsPerMegabyte));
}

}  // namespace vel::bench

#endif
