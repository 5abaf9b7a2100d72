// Bulk IN transfers of a real device: through the module, and with libusb directly, on the caller's thread and from a
// loop thread, in turns. The kernel is a mock, so that the times are its own; what the module adds is in the
// differences. `libusb_bench [ROUNDS]`, under umockdev-wrapper.
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "BenchDevice.h"
#include "Percentile.h"
#include "mockdev/MockUsbDevice.h"
#include "vel/Looper.h"

namespace vel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint8_t kSource = 0x82;
constexpr std::uint32_t kWindow = 8;
constexpr std::uint32_t kTransfers = 256;
constexpr std::uint32_t kRoundTrips = 128;

double Microseconds(Clock::time_point begin) {
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

double Median(const std::vector<double>& values) {
  return vel::bench::Percentile(values, 0.5);
}

// A client of libusb as such clients are: asynchronous transfers, completed on an event thread.
class Direct {
 public:
  explicit Direct(std::uint32_t bytes) {
    libusb_init(&mContext);
    mHandle = libusb_open_device_with_vid_pid(mContext, MockUsbDevice::kVendor, MockUsbDevice::kProduct);
    if (mHandle == nullptr || libusb_detach_kernel_driver(mHandle, 0) != 0 || libusb_claim_interface(mHandle, 0) != 0) {
      throw std::runtime_error("the mocked device cannot be taken");
    }
    for (std::uint32_t i = 0; i < kWindow; ++i) {
      mBuffers.emplace_back(bytes);
      libusb_transfer* transfer = libusb_alloc_transfer(0);
      libusb_fill_bulk_transfer(transfer, mHandle, kSource, mBuffers.back().data(), static_cast<int>(bytes), &OnDone,
                                this, 0);
      mTransfers.push_back(transfer);
    }
    mThread = std::thread([this] {
      while (!mStopped) {
        timeval wait{.tv_sec = 1, .tv_usec = 0};
        libusb_handle_events_timeout_completed(mContext, &wait, nullptr);
      }
    });
  }
  ~Direct() {
    mStopped = true;
    libusb_interrupt_event_handler(mContext);
    mThread.join();
    for (libusb_transfer* transfer : mTransfers) {
      libusb_free_transfer(transfer);
    }
    libusb_release_interface(mHandle, 0);
    libusb_attach_kernel_driver(mHandle, 0);
    libusb_close(mHandle);
    libusb_exit(mContext);
  }
  Direct(const Direct&) = delete;
  Direct& operator=(const Direct&) = delete;

  // `count` transfers, at most `window` in flight.
  void Run(std::uint32_t count, std::uint32_t window) {
    Begin(count, window);
    Await(count);
  }

  // The first half of Run; any thread.
  void Begin(std::uint32_t count, std::uint32_t window) {
    const MutexLock lock(mMutex);
    mDone = 0;
    mLeft = count - window;
    for (std::uint32_t i = 0; i < window; ++i) {
      libusb_submit_transfer(mTransfers[i]);
    }
  }
  void Await(std::uint32_t count) {
    MutexLock lock(mMutex);
    while (mDone < count) {
      mChanged.Wait(lock);
    }
    mDone = 0;
  }

 private:
  static void LIBUSB_CALL OnDone(libusb_transfer* transfer) {
    auto& self = *static_cast<Direct*>(transfer->user_data);
    const MutexLock lock(self.mMutex);
    ++self.mDone;
    if (self.mLeft > 0) {
      --self.mLeft;
      libusb_submit_transfer(transfer);
    }
    self.mChanged.NotifyOne();
  }

  libusb_context* mContext = nullptr;
  libusb_device_handle* mHandle = nullptr;
  std::vector<Bytes> mBuffers;
  std::vector<libusb_transfer*> mTransfers;
  std::atomic<bool> mStopped{false};
  Mutex mMutex;
  CondVar mChanged;
  std::uint32_t mDone VEL_GUARDED_BY(mMutex) = 0;
  std::uint32_t mLeft VEL_GUARDED_BY(mMutex) = 0;
  std::thread mThread;
};

// The same, submitted from a loop thread, as it has to be where the caller may not be held up.
class FromLoop {
 public:
  explicit FromLoop(std::uint32_t bytes) : mDirect(bytes) { mLoop.Start(); }
  FromLoop(const FromLoop&) = delete;
  FromLoop& operator=(const FromLoop&) = delete;
  ~FromLoop() { mLoop.Stop(); }

  void Run(std::uint32_t count, std::uint32_t window) {
    mLoop.PostMessageAAA(std::make_unique<Submission>(mDirect, count, window));
    mDirect.Await(count);
  }

 private:
  class Submission : public Message {
   public:
    Submission(Direct& direct, std::uint32_t count, std::uint32_t window)
        : mDirect(direct), mCount(count), mWindow(window) {}
    void HandleMessage() override { mDirect.Begin(mCount, mWindow); }

   private:
    Direct& mDirect;
    const std::uint32_t mCount;
    const std::uint32_t mWindow;
  };

  Direct mDirect;
  Looper mLoop;
};

// The same through the module.
class Through {
 public:
  Through(const MockUsbDevice& mock, std::uint32_t bytes)
      : mDevice(VIRTUSB_MODULE, {MockUsbDevice::kBus, mock.Address(), MockUsbDevice::kVendor, MockUsbDevice::kProduct}),
        mWorkload{Command::kBulkTransfer, bytes, kSource} {
    for (const Command command : {Command::kDetachKernelDriver, Command::kClaimAllInterface}) {
      mDevice.Driver().onEvent(BuildRequest(command, {}));
    }
    mDevice.WaitForReplies(3);
  }

  void Run(std::uint32_t count, std::uint32_t window) {
    const std::uint64_t before = mDevice.Replies();
    for (std::uint32_t sent = 0; sent < count; ++sent) {
      if (sent >= window) {
        mDevice.WaitForReplies(before + sent - window + 1);
      }
      mDevice.Driver().onEvent(mWorkload.Request(sent));
    }
    mDevice.WaitForReplies(before + count);
  }

 private:
  BenchDevice mDevice;
  const Workload mWorkload;
};

struct Times {
  std::vector<double> streams;     // Microseconds of kTransfers, kWindow in flight; one value a round.
  std::vector<double> roundTrips;  // One in flight; one value a transfer.
};

void Measure(auto&& client, Times& times) {
  client.Run(kWindow, kWindow);  // Warm.
  const auto begin = Clock::now();
  client.Run(kTransfers, kWindow);
  times.streams.push_back(Microseconds(begin));
  for (std::uint32_t i = 0; i < kRoundTrips; ++i) {
    const auto start = Clock::now();
    client.Run(1, 1);
    times.roundTrips.push_back(Microseconds(start));
  }
}

void RunAll(int rounds) {
  MockUsbDevice mock;
  mock.Plug();
  std::printf("bulk IN, medians of %d rounds         direct   from loop      module\n", rounds);
  for (const std::uint32_t bytes : {64U, 512U, 4096U, 16384U, 65536U}) {
    Times direct;
    Times loop;
    Times module;
    for (int round = 0; round < rounds; ++round) {
      Measure(Direct(bytes), direct);
      Measure(FromLoop(bytes), loop);
      Measure(Through(mock, bytes), module);
    }
    if (VIRTUSB_BENCH_THROUGHPUT != 0) {
      const double moved = static_cast<double>(bytes) * kTransfers;
      const auto rate = [moved](const Times& times) { return moved / Median(times.streams); };
      std::printf("%6u B  throughput  [MB/s]     %10.2f  %10.2f  %10.2f   %5.1f %% of direct\n", bytes, rate(direct),
                  rate(loop), rate(module), 100 * rate(module) / rate(direct));
    }
    const double directTrip = Median(direct.roundTrips);
    const double loopTrip = Median(loop.roundTrips);
    const double moduleTrip = Median(module.roundTrips);
    std::printf("%6u B  round trip  [us]       %10.1f  %10.1f  %10.1f   %+5.1f on direct, %+5.1f on the loop\n", bytes,
                directTrip, loopTrip, moduleTrip, moduleTrip - directTrip, moduleTrip - loopTrip);
  }
}

}  // namespace
}  // namespace vel

int main(int argc, char** argv) {
  try {
    vel::RunAll(argc > 1 ? static_cast<int>(std::max(1L, std::strtol(argv[1], nullptr, 10))) : 15);
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "libusb_bench: %s (run it under umockdev-wrapper)\n", error.what()));
    return 1;
  }
  return 0;
}
