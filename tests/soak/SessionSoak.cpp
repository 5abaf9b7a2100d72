// Sessions of the emulated devices under any packets, with what goes wrong around them: a remote side that does not
// read, a close at any moment from another thread, and memory that runs out on the module's threads.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "VirtUsbDriver.h"
#include "remote/RequestBuilder.h"
#include "soak/Soak.h"
#include "support/CountingDeviceBase.h"
#include "support/FailingMemory.h"

namespace vel::test {
namespace {

constexpr std::array<std::uint16_t, 7> kProducts = {0xFF01, 0xFF02, 0xFF03, 0xFF04, 0xFF05, 0xFF10, 0xFFFE};
constexpr std::uint16_t kCamera = kProducts.back();
constexpr std::uint32_t kLastDevId = 1000;

std::uint32_t Interesting(SoakRun& run) {
  constexpr std::array<std::uint32_t, 14> kValues = {
      0, 1, 2, 7, 16, 18, 300, 4096, 0x4000001, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};
  return kValues[run.Pick(kValues.size())];
}

// A request of any code, or of a known one, whose fields are mostly such that it goes far, and sometimes anything.
std::unique_ptr<VelPacket> RandomPacket(SoakRun& run) {
  const Command command =
      run.OneIn(8) ? static_cast<Command>(run.random()) : kCommands[run.Pick(kCommands.size())].command;
  const CommandInfo* info = FindCommand(static_cast<std::uint16_t>(command));
  const std::uint32_t fields = info == nullptr ? 0 : info->fieldBytes;
  std::vector<std::uint8_t> payload(run.OneIn(8) ? run.Pick(48) : fields + run.Pick(400));
  std::generate(payload.begin(), payload.end(), [&run] { return static_cast<std::uint8_t>(run.random()); });
  const auto put = [&payload](std::size_t at, std::uint32_t value) {
    if (payload.size() >= at + sizeof value) {
      std::memcpy(&payload[at], &value, sizeof value);
    }
  };
  const bool plausible = payload.size() >= fields && !run.OneIn(4);
  if (info != nullptr && info->reply == ReplyKind::kAsync) {
    put(0, static_cast<std::uint32_t>(run.random()) & 0x83U);
    put(4, run.Pick(50));
    put(fields - 4, plausible ? static_cast<std::uint32_t>(payload.size()) - fields : Interesting(run));
  }
  if (plausible && command == Command::kIsochTransfer) {
    const std::uint32_t packets = run.Pick(1 + (static_cast<std::uint32_t>(payload.size()) - fields) / 16);
    put(8, packets);
    for (std::uint32_t i = 0; i < packets; ++i) {
      put(fields + 16 * i + 4, run.OneIn(16) ? Interesting(run) : run.Pick(200));
    }
  } else if (plausible && command == Command::kControlTransfer) {
    put(0, static_cast<std::uint32_t>(run.random()) & 0x03FF0FFFU);  // Low requests and values,
    put(4, static_cast<std::uint32_t>(run.random()) & 0x01FF0007U);  // low indexes, and up to 511 bytes.
  } else if (command == Command::kCancelTransfer) {
    put(0, run.Pick(50));
  }
  auto packet = BuildRequest(command, {static_cast<std::uint8_t>(run.random()), run.Pick(100)}, payload);
  if (run.OneIn(8)) {  // A header that lies about the length.
    const std::uint32_t length = Interesting(run);
    std::memcpy(packet->MutableWire().data() + VelPacket::kLengthOffset, &length, sizeof length);
  }
  packet->MutableWire()[VelPacket::kByteOrderOffset] = static_cast<std::uint8_t>(run.Pick(2));
  return packet;
}

// Whether a reply is due to it.
bool IsAnswered(const VelPacket& packet) {
  const CommandInfo* info = FindCommand(packet.GetCommand());
  return info != nullptr && info->reply != ReplyKind::kNone;
}

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
    const bool scarce = run.OneIn(4);
    const bool interrupted = run.OneIn(4);
    Remote remote(product);
    auto driver = std::make_unique<VirtUsbDriver>(&remote);
    ASSERT_EQ(driver->Init(), 0);
    std::size_t due = 0;
    std::size_t maybe = 0;  // A camera that was not opened has no device descriptor to answer with.
    std::thread closer;
    const std::uint32_t closeAt = interrupted ? run.Pick(2000) : UINT32_MAX;
    for (std::uint32_t i = 0; i < 2000; ++i, ++run.work) {
      auto packet = RandomPacket(run);
      const bool descriptor = product == kCamera && packet->GetCommand() == std::uint16_t{0x1000};
      (descriptor ? maybe : due) += IsAnswered(*packet) ? 1U : 0U;
      driver->onEvent(std::move(packet));
      if (scarce && run.OneIn(50)) {
        FailMemoryOfOthersAfter(run.Pick(300), 1 + run.Pick(4));
        ++run.faults;
      }
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
    FailMemoryOfOthersAfter(0, 0);
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
