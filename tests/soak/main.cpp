// Does one thing at random for as long as it is told, and watches the process meanwhile:
//
//   soak SUITE [--seconds N | --rounds N] [--seed N]
//
// A line a minute with what was done and what memory, descriptors and threads came to, and a verdict at the end. Fails
// when an assertion does, when a round hangs, and when anything grows after the first tenth.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <CLI/CLI.hpp>

#include "oskelo/log.h"
#include "soak/Soak.h"
#include "support/Limits.h"

namespace vel::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr long kAllowedGrowthKiB = 16L * 1024;
constexpr unsigned kRoundSeconds = 300;
constexpr std::uint64_t kSettlingRounds = 20;

using MakeSuite = std::unique_ptr<SoakSuite> (*)();

const std::map<std::string, MakeSuite>& Suites() {
  static const std::map<std::string, MakeSuite> suites = {{"camera", &MakeCameraSoak},
                                                          {"device", &MakeDeviceSoak},
                                                          {"flood", &MakeFloodSoak},
                                                          {"session", &MakeSessionSoak}};
  return suites;
}

struct Options {
  std::string suite;
  seconds time{60};
  std::uint64_t rounds = UINT64_MAX;
  unsigned seed = std::random_device{}();
};

struct Footprint {
  long memoryKiB = 0;
  long descriptors = 0;
  long threads = 0;

  static Footprint Now() {
    Footprint now;
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
      if (word == "VmRSS:") {
        status >> now.memoryKiB;
      } else if (word == "Threads:") {
        status >> now.threads;
      }
    }
    now.descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return now;
  }
};

Footprint Largest(const Footprint& one, const Footprint& other) {
  return {std::max(one.memoryKiB, other.memoryKiB), std::max(one.descriptors, other.descriptors),
          std::max(one.threads, other.threads)};
}

// Threads that were told to end, and are no longer waited for, get a moment.
Footprint AtRest(const std::optional<Footprint>& wanted) {
  Footprint now = Footprint::Now();
  const auto deadline = Clock::now() + seconds(10);
  while (wanted && (now.threads > wanted->threads || now.descriptors > wanted->descriptors) &&
         Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    now = Footprint::Now();
  }
  return now;
}

void Check(const Footprint& now, const Footprint& before, long mostKiB) {
  const auto require = [](bool holds, const std::string& what) {
    if (!holds) {
      throw std::runtime_error(what);
    }
  };
  require(now.descriptors <= before.descriptors, "descriptors leak");
  require(now.threads <= before.threads, "threads are left");
  if (!kSanitized) {  // A sanitizer keeps what was freed.
    require(now.memoryKiB <= (mostKiB == 0 ? before.memoryKiB + kAllowedGrowthKiB : mostKiB), "memory grows");
  }
}

extern "C" void SayHanging(int) {
  constexpr char kText[] = "a round does not end\n";
  static_cast<void>(!write(STDERR_FILENO, kText, sizeof kText - 1));
  std::abort();
}

// Where verdicts go: the module writes to standard output as well.
std::FILE* gVerdicts = nullptr;

void Print(const char* what, const Options& options, const SoakSuite& suite, const SoakRun& run, std::uint64_t rounds,
           Clock::time_point begin, const Footprint& now) {
  static_cast<void>(std::fprintf(
      gVerdicts, "%-8s %6lld s  %8llu rounds  %11llu %s  %9llu faults  %7ld KiB  %3ld descriptors  %2ld threads  %s\n",
      options.suite.c_str(), static_cast<long long>(std::chrono::duration_cast<seconds>(Clock::now() - begin).count()),
      static_cast<unsigned long long>(rounds), static_cast<unsigned long long>(run.work), suite.Unit(),
      static_cast<unsigned long long>(run.faults), now.memoryKiB, now.descriptors, now.threads, what));
  static_cast<void>(std::fflush(gVerdicts));
}

void Run(const Options& options) {
  const std::unique_ptr<SoakSuite> suite = Suites().at(options.suite)();
  SoakRun run{.random = std::mt19937(options.seed), .isShort = options.rounds != UINT64_MAX};
  static_cast<void>(std::fprintf(gVerdicts, "%-8s seed %u\n", options.suite.c_str(), options.seed));
  const auto begin = Clock::now();
  auto line = begin + seconds(60);
  std::optional<Footprint> settled;
  std::uint64_t rounds = 0;
  Footprint now;
  while (rounds < options.rounds && Clock::now() < begin + options.time) {
    alarm(kRoundSeconds * unsigned{kSlowdown});
    suite->Round(run);
    alarm(0);
    ++rounds;
    now = AtRest(settled);
    now.memoryKiB = std::max(now.memoryKiB, std::exchange(run.peakKiB, 0));
    const bool settles =
        rounds <= options.rounds / 2 && (rounds <= kSettlingRounds || Clock::now() <= begin + options.time / 10);
    if (settled && !settles) {
      Check(now, *settled, suite->MostKiB());
    } else {
      settled = Largest(now, settled.value_or(now));
    }
    if (Clock::now() >= line) {
      line += seconds(60);
      Print("so far so good", options, *suite, run, rounds, begin, now);
    }
  }
  Print("PASSED", options, *suite, run, rounds, begin, now);
}

Options Parse(int argc, char** argv) {
  Options options;
  CLI::App app;
  app.add_option("suite", options.suite)->required()->check(CLI::IsMember(&Suites()));
  auto* const time = app.add_option_function<long>("--seconds", [&](long count) { options.time = seconds(count); });
  app.add_option("--rounds", options.rounds)->excludes(time)->each([&](const std::string&) {
    options.time = std::chrono::hours(24);
  });
  app.add_option("--seed", options.seed);
  app.parse(argc, argv);
  return options;
}

}  // namespace

void SoakRun::NoteMemory() {
  peakKiB = std::max(peakKiB, Footprint::Now().memoryKiB);
}

}  // namespace vel::test

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  testing::FLAGS_gtest_throw_on_failure = true;
  static_cast<void>(std::signal(SIGALRM, vel::test::SayHanging));
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  vel::test::gVerdicts = fdopen(dup(STDOUT_FILENO), "w");
  static_cast<void>(std::freopen("/dev/null", "w", stdout));
  const std::string suite = argc > 1 ? argv[1] : "soak";
  try {
    vel::test::Run(vel::test::Parse(argc, argv));
    return 0;
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(vel::test::gVerdicts, "%-8s FAILED: %s\n", suite.c_str(), error.what()));
    return 1;
  }
}
