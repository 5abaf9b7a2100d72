// What observing costs: bulk IN transfers of 64 KiB, sixteen in flight, of the emulated raw device, served over TCP in
// this process. By turns unobserved, counted, and captured into FILE, by default and with all data, in one run.
//
// observe_bench [FILE [ROUNDS]]
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Percentile.h"
#include "cmd/serve/Listener.h"
#include "cmd/serve/Server.h"
#include "observe/ObservedChannel.h"
#include "remote/FdStream.h"
#include "remote/RequestBuilder.h"
#include "remote/StreamChannel.h"
#include "remote/TcpConnection.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kBytes = 64U << 10U;
constexpr std::uint32_t kWindow = 16;
constexpr std::uint32_t kTransfers = 10000;
constexpr std::array kWays = {"unobserved", "counted", "captured", "captured whole"};
constexpr std::size_t kCaptured = 2;

struct Cost {
  double megabytesPerSecond = 0;
  double microseconds = 0;  // Of processor time for each transfer, of everything in this process.
};

double ProcessorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// One way's transfers.
class Exchange {
 public:
  Exchange(std::shared_ptr<vel::ModuleLibrary> library, std::unique_ptr<vel::PacketChannel> channel,
           const vel::Listener& listener, const vel::StopSignal& stop)
      : mChannel(std::move(channel)), mServing([library = std::move(library), &listener, &stop] {
          std::string peer;
          const vel::UniqueFd remote = listener.Accept(peer);
          vel::FdStream stream(remote.Get(), remote.Get(), stop);
          vel::DeviceTap tap("raw", nullptr);
          vel::Server(library, {0, 0x86, 0xFF00, 0xFF10, ""}, {}, stream, tap).Run();
        }) {}

  Cost Run() {
    mChannel->Start({.onPacket = [this](std::unique_ptr<vel::VelPacket>) { OnReply(); }, .onClosed = nullptr});
    mChannel->Send(vel::BuildRequest(vel::Command::kOpenUsbDev, {0, 1}));
    const Clock::time_point begin = Clock::now();
    const double processor = ProcessorSeconds();
    for (std::uint32_t i = 0; i + 1 < kWindow; ++i) {  // The reply to the first one sends another.
      Send(i);
    }
    {
      vel::MutexLock lock(mMutex);
      while (mReplies < kTransfers) {
        mDone.Wait(lock);
      }
    }
    const std::chrono::duration<double> taken = Clock::now() - begin;
    const double worked = ProcessorSeconds() - processor;
    mChannel->Close();
    mChannel.reset();
    mServing.join();
    return {double{kBytes} * kTransfers / 1e6 / taken.count(), worked * 1e6 / kTransfers};
  }

 private:
  void Send(std::uint32_t stream) {
    mChannel->Send(vel::BuildTransferRequest(vel::Command::kBulkTransfer, {0, 1}, 0x81, stream, kBytes, {}));
  }
  void OnReply() {
    const std::uint32_t replies = ++mReceived;
    if (replies < kTransfers) {
      Send(kWindow + replies);
    }
    if (replies == kTransfers) {
      const vel::MutexLock lock(mMutex);
      mReplies = replies;
      mDone.NotifyOne();
    }
  }

  std::unique_ptr<vel::PacketChannel> mChannel;
  std::uint32_t mReceived = 0;  // The channel's thread.
  vel::Mutex mMutex;
  vel::CondVar mDone;
  std::uint32_t mReplies = 0;
  std::thread mServing;
};

}  // namespace

int main(int argc, char** argv) {
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  const std::string file = argc > 1 ? argv[1] : "/tmp/observe_bench.pcapng";
  const int rounds = argc > 2 ? static_cast<int>(std::strtol(argv[2], nullptr, 10)) : 24;
  const auto library = vel::ModuleLibrary::Load(VIRTUSB_MODULE);
  const vel::StopSignal stop;
  const vel::Listener listener("0", stop);
  const vel::HostPort address = *vel::ParseHostPort(listener.Name());
  std::array<std::vector<double>, kWays.size()> speeds;
  std::array<std::vector<double>, kWays.size()> costs;
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t turn = 0; turn < kWays.size(); ++turn) {
      const std::size_t way =
          (turn + static_cast<std::size_t>(round)) % kWays.size();  // None is always behind the same.
      std::unique_ptr<vel::CaptureFile> capture;
      if (way >= kCaptured) {
        capture = std::make_unique<vel::CaptureFile>(file, way == kCaptured ? vel::kCaptureBytes : vel::kSnapLength,
                                                     [round](const std::string& line) {
                                                       if (round == 0) {
                                                         std::printf("%s\n", line.c_str());
                                                       }
                                                     });
      }
      std::unique_ptr<vel::PacketChannel> channel =
          std::make_unique<vel::StreamChannel>(std::make_unique<vel::FdStream>(vel::ConnectTcp(address, stop)));
      if (way > 0) {
        channel = std::make_unique<vel::ObservedChannel>(std::move(channel),
                                                         std::make_shared<vel::DeviceTap>("raw", capture.get()));
      }
      const Cost cost = Exchange(library, std::move(channel), listener, stop).Run();
      speeds[way].push_back(cost.megabytesPerSecond);
      costs[way].push_back(cost.microseconds);
    }
  }
  // Where the scheduler happens to put the threads of a connection takes half the speed from many of them, whatever the
  // way: the fastest tenth shows what a way costs.
  constexpr double kFastest = 0.9;
  const double base = vel::bench::Percentile(speeds[0], kFastest);
  for (std::size_t way = 0; way < kWays.size(); ++way) {
    const double speed = vel::bench::Percentile(speeds[way], kFastest);
    std::printf("%-14s %7.0f MB/s  %5.1f %% (median %.0f MB/s)  %6.1f us of processor time a transfer\n", kWays[way],
                speed, 100 * speed / base, vel::bench::Percentile(speeds[way], 0.5),
                vel::bench::Percentile(costs[way], 1 - kFastest));
  }
  if (std::filesystem::is_regular_file(file)) {
    std::filesystem::remove(file);
  }
  return 0;
}
