// Requests through onEvent to the reply, on the emulated raw device, beside what they cannot be cheaper than: the bare
// hand-over to a thread and back, and a copy of the same bytes; and beside a public redirection protocol's packet code.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BenchDevice.h"
#include "Percentile.h"
#if VIRTUSB_BENCH_PARSER
#include "ParserLoop.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kWindow = 16;

struct Size {
  const char* name;
  vel::Workload workload;
};

const std::vector<Size>& Sizes() {
  static const std::vector<Size> sizes = {
      {"status", {vel::Command::kResetDevice, 0}},        {"64B", {vel::Command::kBulkTransfer, 64}},
      {"512B", {vel::Command::kBulkTransfer, 512}},       {"16KiB", {vel::Command::kBulkTransfer, 16U << 10U}},
      {"1MiB", {vel::Command::kBulkTransfer, 1U << 20U}},
  };
  return sizes;
}

// Times `operation` for each iteration.
template <class Operation>
void TimeEach(benchmark::State& state, Operation operation) {
  std::vector<double> microseconds;
  microseconds.reserve(1U << 20U);
  for ([[maybe_unused]] auto _ : state) {
    const Clock::time_point begin = Clock::now();
    operation();
    microseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
  }
  state.counters["p50_us"] = vel::bench::Percentile(microseconds, 0.50);
  state.counters["p99_us"] = vel::bench::Percentile(microseconds, 0.99);
  state.SetItemsProcessed(state.iterations());
}

void OneInFlight(benchmark::State& state, const vel::Workload& workload) {
  vel::BenchDevice device(VIRTUSB_MODULE);
  TimeEach(state, [&] { device.RoundTrips(workload, 1); });
}

// Each reply sends the next request, so that always kWindow are in flight and the session's thread never sleeps.
void WindowFromReply(benchmark::State& state, const vel::Workload& workload) {
  vel::BenchDevice device(VIRTUSB_MODULE);
  constexpr std::uint64_t kBatch = 20000;
  const std::uint64_t batch = workload.bytes > 65536 ? kBatch / 100 : kBatch;
  std::uint64_t sent = 0;  // Session's thread while a batch runs, this thread between two.
  std::uint64_t limit = 0;
  vel::Mutex mutex;
  vel::CondVar done;
  bool finished = false;
  device.SetOnReply([&] {
    if (sent < limit) {
      device.Driver().onEvent(workload.Request(static_cast<std::uint32_t>(++sent)));
    } else if (device.Replies() == 1 + limit) {
      const vel::MutexLock lock(mutex);
      finished = true;
      done.NotifyOne();
    }
  });
  for ([[maybe_unused]] auto _ : state) {
    limit += batch;
    finished = false;
    // The whole window goes in as one packet's reply would: from here, before the first reply is looked at.
    std::vector<std::unique_ptr<vel::VelPacket>> first;
    for (std::uint32_t i = 0; i < kWindow; ++i) {
      first.push_back(workload.Request(i));
    }
    sent += kWindow;
    for (auto& packet : first) {
      device.Driver().onEvent(std::move(packet));
    }
    vel::MutexLock lock(mutex);
    while (!finished) {
      done.Wait(lock);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(batch));
  device.SetOnReply(nullptr);
}

// The client has a thread of its own that keeps kWindow in flight and sleeps while it cannot send.
void WindowFromThread(benchmark::State& state, const vel::Workload& workload) {
  vel::BenchDevice device(VIRTUSB_MODULE);
  const std::uint64_t before = device.Replies();
  std::uint64_t sent = 0;
  for ([[maybe_unused]] auto _ : state) {
    if (sent >= kWindow) {
      device.WaitForReplies(before + sent - kWindow + 1);
    }
    device.Driver().onEvent(workload.Request(static_cast<std::uint32_t>(sent++)));
  }
  device.WaitForReplies(before + sent);
  state.SetItemsProcessed(state.iterations());
}

// The yardstick of one in flight: a post to a sleeping thread and its answer, with a mutex and condition variables.
void BareHandOver(benchmark::State& state) {
  vel::Mutex mutex;
  vel::CondVar toThread;
  vel::CondVar toCaller;
  int posted = 0;
  int answered = 0;
  bool stop = false;
  std::thread thread([&] {
    vel::MutexLock lock(mutex);
    while (true) {
      while (posted == answered && !stop) {
        toThread.Wait(lock);
      }
      if (stop) {
        return;
      }
      answered = posted;
      toCaller.NotifyOne();
    }
  });
  TimeEach(state, [&] {
    vel::MutexLock lock(mutex);
    ++posted;
    toThread.NotifyOne();
    while (answered != posted) {
      toCaller.Wait(lock);
    }
  });
  {
    const vel::MutexLock lock(mutex);
    stop = true;
    toThread.NotifyOne();
  }
  thread.join();
}

// The yardstick of a large transfer: one copy of its bytes between two blocks that stay.
void Copy(benchmark::State& state, std::uint32_t bytes) {
  const std::vector<char> from(bytes, 1);
  std::vector<char> to(bytes);
  TimeEach(state, [&] {
    std::memcpy(to.data(), from.data(), bytes);
    benchmark::ClobberMemory();
  });
}

#if VIRTUSB_BENCH_PARSER
void PublicParsers(benchmark::State& state, std::uint32_t bytes) {
  vel::ParserLoop loop(bytes);
  const std::uint64_t batch = bytes > 65536 ? 200 : 20000;
  // Where each is faster: on one thread several in flight spare calls, but large ones leave the caches.
  const std::uint64_t window = bytes < (16U << 10U) ? kWindow : 1;
  for ([[maybe_unused]] auto _ : state) {
    if (!loop.RoundTrips(batch, window)) {
      state.SkipWithError("a parser stopped");
      return;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(batch));
}
#endif

// Keeps the medians of what ran, for the table of ratios.
class Medians : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        const double nanoseconds = run.counters.contains("items_per_second")
                                       ? 1e9 / run.counters.at("items_per_second").value
                                       : run.GetAdjustedRealTime();
        const double p50 = run.counters.contains("p50_us") ? run.counters.at("p50_us").value : 0;
        const double p99 = run.counters.contains("p99_us") ? run.counters.at("p99_us").value : 0;
        mRows[run.run_name.function_name] = {nanoseconds, p50, p99};
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintTable() const {
    std::printf(
        "\n| request | one in flight, p50 / p99 us | x hand-over (p50) | 16 in flight, ns each | requests/s "
        "| 16 from a thread that sleeps, ns each | public parsers alone, ns each | x parsers (16 in flight) "
        "| x memcpy (16 in flight) |\n|---|---|---|---|---|---|---|---|---|\n");
    const double handOver = At("hand-over").p50;
    for (const Size& size : Sizes()) {
      const Row one = At(std::string("one/") + size.name);
      const Row window = At(std::string("window/") + size.name);
      const Row thread = At(std::string("thread/") + size.name);
      const double copy = size.workload.bytes == 0 ? 0 : At(std::string("memcpy/") + size.name).p50 * 1000;
      std::printf("| %s | %.1f / %.1f | %.2f | %.0f | %.0f | %.0f | ", size.name, one.p50, one.p99,
                  handOver > 0 ? one.p50 / handOver : 0, window.nanoseconds,
                  window.nanoseconds > 0 ? 1e9 / window.nanoseconds : 0, thread.nanoseconds);
      if (const double parsers = At(std::string("parsers/") + size.name).nanoseconds; parsers > 0) {
        std::printf("%.0f | %.2f | ", parsers, window.nanoseconds / parsers);
      } else {
        std::printf("- | - | ");
      }
      if (size.workload.bytes >= (16U << 10U) && copy > 0) {
        std::printf("%.2f |\n", window.nanoseconds / copy);
      } else {
        std::printf("- |\n");
      }
    }
    std::printf("\nbare hand-over to a sleeping thread and back: p50 %.1f us, p99 %.1f us\n", handOver,
                At("hand-over").p99);
  }

 private:
  struct Row {
    double nanoseconds = 0;
    double p50 = 0;
    double p99 = 0;
  };
  Row At(const std::string& name) const {
    const auto found = mRows.find(name);
    return found == mRows.end() ? Row{} : found->second;
  }

  std::map<std::string, Row> mRows;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv, argv + argc);
  // Medians of interleaved repetitions, unless the caller says otherwise.
  arguments.insert(arguments.begin() + 1, {"--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true",
                                           "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.3"});
  std::vector<char*> pointers;
  pointers.reserve(arguments.size());
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  benchmark::RegisterBenchmark("hand-over", &BareHandOver)->UseRealTime();
  for (const Size& size : Sizes()) {
    const std::string name = size.name;
    benchmark::RegisterBenchmark(("one/" + name).c_str(), &OneInFlight, size.workload)->UseRealTime();
    benchmark::RegisterBenchmark(("window/" + name).c_str(), &WindowFromReply, size.workload)->UseRealTime();
    benchmark::RegisterBenchmark(("thread/" + name).c_str(), &WindowFromThread, size.workload)->UseRealTime();
    if (size.workload.bytes > 0) {
      benchmark::RegisterBenchmark(("memcpy/" + name).c_str(), &Copy, size.workload.bytes)->UseRealTime();
#if VIRTUSB_BENCH_PARSER
      benchmark::RegisterBenchmark(("parsers/" + name).c_str(), &PublicParsers, size.workload.bytes)->UseRealTime();
#endif
    }
  }
  Medians reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintTable();
  return 0;
}
