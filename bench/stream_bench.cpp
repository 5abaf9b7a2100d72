// What crosses a byte stream: bulk transfers of 64 KiB, 16 in flight, of emulated raw devices that are served
// somewhere, in turn. stream_bench FOLDER [DEVICE PROCESS]...   (certificates; tcp:// tls://; who serves it) prints
// medians, and ratios to the first.
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <string>
#include <vector>

#include "GuestBench.h"
#include "Percentile.h"
#include "cmd/devices/DeviceChannel.h"
#include "remote/RequestBuilder.h"

namespace {

using vel::bench::Require;
using Clock = std::chrono::steady_clock;
constexpr std::uint32_t kLarge = 64U << 10U;
constexpr int kInFlight = 16;
constexpr int kRounds = 7;
constexpr std::chrono::milliseconds kTime{1000};
constexpr std::array<std::uint8_t, 2> kEndpoints = {0x81, 0x01};

struct Figures {
  std::vector<double> megabytesPerSecond;
  std::vector<double> cpuMsPerMegabyte;  // Of both processes: what else the machine does is not in it.
};

struct Served {
  std::string device;
  std::string process;
};

double BusyWith(const Served& served) {
  return vel::bench::BusyOf("self") + vel::bench::BusyOf(served.process);
}

void Measure(const Served& served, const vel::CommonOptions& common, std::uint8_t endpoint, Figures& figures) {
  const std::vector<std::uint8_t> data(endpoint < 0x80 ? kLarge : 0);
  const vel::StopSignal stop;
  std::promise<void> opened;
  std::promise<void> done;
  std::uint64_t bytes = 0;
  int left = kInFlight;
  Clock::time_point end;
  const auto channel = vel::OpenDevice(served.device, common, stop);
  const auto submit = [&] {
    return channel->Send(vel::BuildTransferRequest(vel::Command::kBulkTransfer, {}, endpoint, 1, kLarge, data));
  };
  channel->Start({.onPacket =
                      [&](const std::unique_ptr<vel::VelPacket>& packet) {
                        if (packet->GetCommand() == vel::ReplyCode(vel::Command::kOpenUsbDev)) {
                          return opened.set_value();
                        }
                        bytes += kLarge;
                        if ((Clock::now() >= end || !submit()) && --left == 0) {
                          done.set_value();
                        }
                      },
                  .onClosed = [](const std::string& why) { Require(false, why); }});
  channel->Send(vel::BuildRequest(vel::Command::kOpenUsbDev, {}));
  opened.get_future().wait();
  const Clock::time_point begin = Clock::now();
  end = begin + kTime;
  const double busy = BusyWith(served);
  for (int i = 0; i < kInFlight; ++i) {
    submit();
  }
  done.get_future().wait();
  const double megabytes = static_cast<double>(bytes) / 1e6;
  figures.megabytesPerSecond.push_back(megabytes / std::chrono::duration<double>(Clock::now() - begin).count());
  figures.cpuMsPerMegabyte.push_back(1e3 * (BusyWith(served) - busy) / megabytes);
  channel->Close();
}

}  // namespace

int main(int argc, char** argv) {
  Require(argc > 2 && argc % 2 == 0, "stream_bench FOLDER [DEVICE PROCESS]...");
  vel::CommonOptions common;
  common.tlsFolder = argv[1];
  std::vector<Served> devices;
  for (int i = 2; i < argc; i += 2) {
    devices.push_back({argv[i], argv[i + 1]});
  }
  std::vector<std::array<Figures, kEndpoints.size()>> figures(devices.size());
  try {
    for (int round = 0; round < kRounds; ++round) {
      for (std::size_t i = 0; i < devices.size(); ++i) {
        for (std::size_t way = 0; way < kEndpoints.size(); ++way) {
          Measure(devices[i], common, kEndpoints[way], figures[i][way]);
        }
      }
    }
  } catch (const std::exception& error) {
    Require(false, error.what());
  }
  for (std::size_t way = 0; way < kEndpoints.size(); ++way) {
    const double first = vel::bench::Percentile(figures[0][way].megabytesPerSecond, 0.5);
    for (std::size_t i = 0; i < devices.size(); ++i) {
      const double rate = vel::bench::Percentile(figures[i][way].megabytesPerSecond, 0.5);
      std::printf("64 KiB x %d %s, %-28s %7.0f MB/s (%.2f x) %6.2f processor ms/MB\n", kInFlight,
                  way == 0 ? "in " : "out", devices[i].device.c_str(), rate, rate / first,
                  vel::bench::Percentile(figures[i][way].cpuMsPerMegabyte, 0.5));
    }
  }
  return 0;
}
