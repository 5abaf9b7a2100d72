// What one request costs beside time: heap allocations, and bytes copied per payload byte. Exact, not measured.
#include <array>
#include <cstdio>

#include "BenchDevice.h"
#include "counting_hooks.h"

namespace {

struct Row {
  const char* name;
  vel::Workload workload;
  bool lean = false;
};

constexpr std::array kRows = {
    Row{"status request", {vel::Command::kResetDevice, 0}},
    Row{"bulk IN 64 B", {vel::Command::kBulkTransfer, 64}},
    Row{"bulk IN 512 B", {vel::Command::kBulkTransfer, 512}},
    Row{"bulk IN 16 KiB", {vel::Command::kBulkTransfer, 16U << 10U}},
    Row{"bulk IN 1 MiB", {vel::Command::kBulkTransfer, 1U << 20U}},
    Row{"bulk OUT 64 KiB", {vel::Command::kBulkTransfer, 64U << 10U, 0x01}},
    Row{"bulk OUT 64 KiB, lean reply", {vel::Command::kBulkTransfer, 64U << 10U, 0x01}, true},
};

}  // namespace

int main(int argc, char** argv) {
  constexpr std::uint64_t kRequests = 1000;
  vel::BenchDevice device(argc > 1 ? argv[1] : VIRTUSB_MODULE);
  std::printf(
      "| request | heap allocations | of them the request packet | bytes copied per payload byte, the request's own "
      "apart |\n");
  std::printf("|---|---|---|---|\n");
  for (const Row& row : kRows) {
    if (row.lean) {
      device.WantLeanReplies();  // From here on: the last rows.
    }
    device.RoundTrips(row.workload, 10);  // Queues and caches reach their size.
    StartCounting();
    for (std::uint64_t i = 0; i < kRequests; ++i) {
      row.workload.Request(0);
    }
    const Counts requestOnly = StopCounting();
    StartCounting();
    device.RoundTrips(row.workload, kRequests);
    const Counts counts = StopCounting();
    const auto perRequest = [](std::uint64_t value) {
      return static_cast<double>(value) / static_cast<double>(kRequests);
    };
    const double copied =
        row.workload.bytes == 0 ? 0.0 : perRequest(counts.bytesCopied - requestOnly.bytesCopied) / row.workload.bytes;
    std::printf("| %s | %.1f | %.1f | %.2f |\n", row.name, perRequest(counts.allocations),
                perRequest(requestOnly.allocations), copied);
  }
  return 0;
}
