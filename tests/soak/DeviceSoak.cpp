// A real device over the real libusb, on a mocked kernel: random transfers and cancels, closes, unplugs, an event
// thread that dies. Every transfer is answered once, and what the session took is given back.
#include <dlfcn.h>
#include <libusb-1.0/libusb.h>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include <gmock/gmock.h>

#include "mockdev/MockRemote.h"
#include "soak/Soak.h"

namespace {

std::atomic<bool> gEventThreadDies{false};

}  // namespace

// In front of libusb's, for the module too: fails once when it is to, which ends the thread that called.
extern "C" [[gnu::visibility("default")]] int libusb_handle_events_timeout_completed(libusb_context* context,
                                                                                     timeval* limit, int* completed) {
  static const auto real = reinterpret_cast<decltype(&libusb_handle_events_timeout_completed)>(
      dlsym(RTLD_NEXT, "libusb_handle_events_timeout_completed"));
  return gEventThreadDies.exchange(false) ? static_cast<int>(LIBUSB_ERROR_OTHER) : real(context, limit, completed);
}

namespace vel::test {
namespace {

using testing::Each;
using testing::Pair;
using testing::SizeIs;

constexpr std::array<std::pair<Command, std::uint8_t>, 6> kTargets = {{
    {Command::kBulkTransfer, 0x02},
    {Command::kBulkTransfer, 0x82},
    {Command::kBulkTransfer, 0x84},
    {Command::kBulkTransfer, 0x85},
    {Command::kInterruptTransfer, 0x03},
    {Command::kInterruptTransfer, 0x83},
}};

class DeviceSoak final : public SoakSuite {
 public:
  DeviceSoak() { mDevice.Plug(); }

  const char* Unit() const override { return "transfers"; }

  void Round(SoakRun& run) override {
    Tally tally;
    auto remote = Redirect(mDevice, tally);
    ASSERT_NO_FATAL_FAILURE(Take(*remote));
    const std::uint32_t count = 1 + run.Pick(60);
    const std::uint32_t unplugAt = run.OneIn(3) ? 1 + run.Pick(count) : 0;
    gEventThreadDies = run.OneIn(8);
    run.faults += gEventThreadDies ? 1U : 0U;
    for (std::uint32_t last = 0; last < count;) {
      last = SubmitAny(run, *remote);
      if (run.OneIn(3)) {
        EXPECT_THAT(remote->CancelTransfer(1 + run.Pick(last)),
                    testing::AnyOf(0, LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_NO_DEVICE));
        ++run.faults;
      }
      if (run.OneIn(20)) {
        remote->ControlTransfer({0xC0, MockUsbDevice::kFetch, 0, 0, 8});
      }
      if (last == unplugAt) {
        mDevice.Unplug();
      }
    }
    const bool closes = run.OneIn(2);
    if (closes) {
      EXPECT_EQ(remote->Status(Command::kCloseUsbDev), 0);
      EXPECT_THAT(tally.Await(0), SizeIs(count));  // By the time the close is answered.
      if (unplugAt == 0) {
        EXPECT_EQ(remote->Status(Command::kOpenUsbDev), 0);  // The end attaches what is open.
      }
    }
    remote.reset();
    if (unplugAt != 0) {
      ++run.faults;
      mDevice.Plug();
    } else {
      EXPECT_THAT(mDevice.Look().driverBound, Each(true));
    }
    EXPECT_TRUE(mDevice.AwaitClosed());
    EXPECT_THAT(tally.Await(0), Each(Pair(testing::_, SizeIs(1))));
    gEventThreadDies = false;
    run.work += count;
  }

 private:
  static std::uint32_t SubmitAny(SoakRun& run, RemoteDevice& remote) {
    if (run.OneIn(8)) {
      return remote.SubmitIsoTransfer(run.OneIn(2) ? 0x06 : 0x86, std::vector<std::uint32_t>(8, 64), Bytes(512),
                                      [](const TransferReply&) {});
    }
    const auto [command, endpoint] = kTargets[run.Pick(kTargets.size())];
    return Submit(remote, command, endpoint, 1 + run.Pick(4096));
  }

  MockUsbDevice mDevice;
};

}  // namespace

std::unique_ptr<SoakSuite> MakeDeviceSoak() {
  return std::make_unique<DeviceSoak>();
}

}  // namespace vel::test
