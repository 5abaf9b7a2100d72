#ifndef VIRTUSB_BENCH_GUEST_BENCH_H
#define VIRTUSB_BENCH_GUEST_BENCH_H

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

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

}  // namespace vel::bench

#endif
