// One kind of request after the other, ten million in a session, on every emulated device and on a camera that
// streams. What may wait is bounded: the process stays below 300 MB, and every request is answered in the end.
#include <algorithm>
#include <array>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VirtUsbDriver.h"
#include "remote/RequestBuilder.h"
#include "soak/Soak.h"
#include "support/CameraStart.h"
#include "support/CountingDeviceBase.h"
#include "support/Limits.h"

namespace vel::test {
namespace {

constexpr std::uint16_t kCamera = 0xFFFE;
constexpr std::array<std::uint16_t, 7> kProducts = {kCamera, 0xFF01, 0xFF02, 0xFF03, 0xFF04, 0xFF05, 0xFF10};
constexpr std::uint8_t kIn = 0x81;

using MakeRequest = std::unique_ptr<VelPacket> (*)(RequestId id, std::uint32_t number);

std::unique_ptr<VelPacket> Iso(RequestId id, std::uint32_t number, std::span<const std::uint32_t> lengths) {
  return BuildIsoRequest(id, kIn, number, lengths, {});
}

// Reads that the device answers, or keeps: of nothing, of little, of as much as there may be; and some of each that
// are refused.
constexpr std::array<MakeRequest, 6> kKinds = {
    [](RequestId id, std::uint32_t number) {
      return BuildTransferRequest(Command::kInterruptTransfer, id, kIn, number, 0, {});
    },
    [](RequestId id, std::uint32_t number) { return Iso(id, number, {}); },
    [](RequestId id, std::uint32_t number) {
      return BuildTransferRequest(Command::kInterruptTransfer, id, static_cast<std::uint8_t>(kIn + number % 3), number,
                                  8, {});
    },
    [](RequestId id, std::uint32_t number) {
      return BuildTransferRequest(Command::kBulkTransfer, id, number % 2 == 0 ? 0x02 : 0x82, number, 1,
                                  std::array<std::uint8_t, 1>{});
    },
    [](RequestId id, std::uint32_t number) {
      constexpr std::uint32_t kMiB = 1U << 20U;
      return BuildTransferRequest(Command::kInterruptTransfer, id, kIn, number,
                                  (number % 64 == 0 ? number / 64 % 70 : 65) * kMiB, {});
    },
    [](RequestId id, std::uint32_t number) {
      static const std::vector<std::uint32_t> lengths(1024, 3072);
      return Iso(id, number, lengths);
    },
};
constexpr std::array<const char*, kKinds.size()> kNames = {"empty",     "empty isochronous", "tiny reads",
                                                           "tiny bulk", "huge reads",        "huge isochronous"};

class FloodSoak final : public SoakSuite {
 public:
  const char* Unit() const override { return "requests"; }
  long MostKiB() const override { return 300L * 1000 * 1000 / 1024; }

  void Round(SoakRun& run) override {
    if (mRound == 0 && !run.isShort) {
      mRound = run.Pick(kKinds.size() * kProducts.size());
    }
    const std::size_t kind = mRound % kKinds.size();
    const std::uint16_t product = kProducts[mRound++ / kKinds.size() % kProducts.size()];
    SCOPED_TRACE(testing::Message() << kNames[kind] << " on " << std::hex << product);
    CountingDeviceBase remote(product);
    auto driver = std::make_unique<VirtUsbDriver>(&remote);
    ASSERT_EQ(driver->Init(), 0);
    std::size_t asked = Begin(*driver, product == kCamera);
    const bool huge = kind >= 4;
    const std::uint32_t batch = huge ? 50 : 1000;  // Handled before more are sent: what grows is not the queue.
    const std::uint32_t share = (kSanitized || run.isShort ? 100U : 1U) * (kSanitized && run.isShort ? 4U : 1U);
    const std::uint32_t most = 10'000'000U / share / (huge ? 100 : 1);
    for (std::uint32_t number = 0; number < most;) {
      const std::uint32_t end = number + batch;
      for (; number < end; ++number) {
        driver->onEvent(kKinds[kind]({.reqId = 2, .devId = 1}, number));
      }
      driver->onEvent(BuildRequest(Command::kGetDeviceSpeed, {.reqId = 3, .devId = end}));
      ASSERT_TRUE(remote.AwaitSync(end)) << "no answer behind " << end;
      asked += batch + 1;
      run.work += batch;
      if (end % 100'000 == 0) {
        run.NoteMemory();
      }
    }
    driver->Close(0);
    EXPECT_EQ(remote.Replies(), asked);
  }

 private:
  // Opened, and a camera streaming. The requests that this took.
  static std::size_t Begin(VirtUsbDriver& driver, bool camera) {
    auto requests = CameraStart({});
    const std::size_t count = camera ? requests.size() : 1;
    std::for_each_n(requests.begin(), count, [&driver](auto& request) { driver.onEvent(std::move(request)); });
    return count;
  }

  std::size_t mRound = 0;
};

}  // namespace

std::unique_ptr<SoakSuite> MakeFloodSoak() {
  return std::make_unique<FloodSoak>();
}

}  // namespace vel::test
