// Sessions of the emulated devices under any packets, with what goes wrong around them: a remote side that does not
// read, a close at any moment from another thread, and memory that runs out on the module's threads.
#include <array>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "VirtUsbDriver.h"
#include "remote/RequestBuilder.h"
#include "soak/RandomPackets.h"
#include "support/CountingDeviceBase.h"
#include "support/FailingMemory.h"

namespace vel::test {
namespace {

constexpr std::array<std::uint16_t, 7> kProducts = {0xFF01, 0xFF02, 0xFF03, 0xFF04, 0xFF05, 0xFF10, 0xFFFE};
constexpr std::uint16_t kCamera = kProducts.back();
constexpr std::uint32_t kLastDevId = 1000;

// Its thread calls are how the module's threads become known.
class Remote final : public CountingDeviceBase {
 public:
  using CountingDeviceBase::CountingDeviceBase;

  void Stall(bool stalls) {
    const MutexLock lock(mGate);
    mStalls = stalls;
    mGateMoved.NotifyAll();
  }
  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) override {
    const HealthyMemory healthy;
    {
      MutexLock lock(mGate);
      while (mStalls) {
        mGateMoved.Wait(lock);
      }
    }
    return CountingDeviceBase::Send(std::move(packet), waitMs);
  }

 private:
  Mutex mGate;
  CondVar mGateMoved;
  bool mStalls VEL_GUARDED_BY(mGate) = false;
};

class SessionSoak final : public SoakSuite {
 public:
  const char* Unit() const override { return "requests"; }

  void Round(SoakRun& run) override {
    const std::uint16_t product = kProducts[run.Pick(kProducts.size())];
    const bool scarce = !run.isShort && run.OneIn(4);
    const bool interrupted = run.OneIn(4);
    Remote remote(product);
    auto driver = std::make_unique<VirtUsbDriver>(&remote);
    ASSERT_EQ(driver->Init(), 0);
    FailMemoryOfOthers(scarce ? 1 + run.Pick(200) : 0);
    std::size_t due = 0;
    std::size_t maybe = 0;  // A camera that was not opened has no device descriptor to answer with.
    std::thread closer;
    const std::uint32_t closeAt = interrupted ? run.Pick(2000) : UINT32_MAX;
    for (std::uint32_t i = 0; i < 2000; ++i, ++run.work) {
      auto packet = RandomPacket(run);
      const bool descriptor = product == kCamera && packet->GetCommand() == std::uint16_t{0x1000};
      (descriptor ? maybe : due) += IsAnswered(*packet) ? 1U : 0U;
      driver->onEvent(std::move(packet));
      if (run.OneIn(200)) {
        remote.Stall(true);
        ++run.faults;
      } else if (run.OneIn(20)) {
        remote.Stall(false);
      }
      if (i == closeAt) {
        ++run.faults;
        const std::shared_ptr<DriverObj> session = driver->GetDriverObj();
        closer = std::thread([session] { std::dynamic_pointer_cast<VirtUsb>(session)->Stop(); });
      }
    }
    remote.Stall(false);
    driver->onEvent(BuildRequest(Command::kGetDeviceSpeed, {.reqId = 1, .devId = kLastDevId}));
    if (!scarce && !interrupted) {
      EXPECT_TRUE(remote.AwaitSync(kLastDevId));
    }
    if (closer.joinable()) {
      closer.join();
    }
    driver->Close(0);
    run.faults += FailMemoryOfOthers(0);
    driver.reset();
    EXPECT_LE(remote.Replies(), due + maybe + 1);
    if (!scarce && !interrupted) {
      EXPECT_GE(remote.Replies(), due + 1);
    }
  }
};

}  // namespace

std::unique_ptr<SoakSuite> MakeSessionSoak() {
  return std::make_unique<SessionSoak>();
}

}  // namespace vel::test
