// The module over the real libusb, on a mocked kernel. `mockdev_test --soak SECONDS` lets the
// random part run longer.
#include <gmock/gmock.h>
#include <libusb-1.0/libusb.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <random>
#include <string_view>

#include "mockdev/MockRemote.h"
#include "protocol/IsoTable.h"

namespace vel {
namespace {

using Clock = std::chrono::steady_clock;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;
using testing::SizeIs;

constexpr std::chrono::milliseconds kPrompt{500};  // Half of libusb's wait for events.
constexpr int kShortSoak = 2;                      // Seconds.
int gSoak = kShortSoak;

class MockDevice : public testing::Test {
 protected:
  MockDevice() { mDevice.Plug(); }

  std::unique_ptr<RemoteDevice> Taken() {
    std::unique_ptr<RemoteDevice> remote = Redirect(mDevice, mTally);
    Take(*remote);
    return remote;
  }

  Tally mTally;
  MockUsbDevice mDevice;
};

TEST_F(MockDevice, BulkAndInterruptCarryEveryLength) {
  const auto remote = Taken();
  for (const std::uint32_t length : {1U, 511U, 512U, 16384U, 65536U}) {
    const Bytes data = MockUsbDevice::Pattern(length);
    for (const auto& [command, in, out] :
         {std::tuple<Command, std::uint8_t, std::uint8_t>{Command::kBulkTransfer, 0x82, 0x02},
          {Command::kInterruptTransfer, 0x81, 0x03}}) {
      EXPECT_EQ(remote->Transfer(command, in, length).data, data);
      EXPECT_EQ(remote->Transfer(command, out, length, data).status, 0);
      EXPECT_EQ(mDevice.Taken(out), data);
    }
  }
}

TEST_F(MockDevice, ControlCarriesDataStallsTimesOutAndClearsHalts) {
  const auto remote = Taken();
  const Bytes data = MockUsbDevice::Pattern(300);
  EXPECT_EQ(remote->ControlTransfer({0x40, MockUsbDevice::kStore, 0, 0, 300}, data).value, 300);
  EXPECT_EQ(remote->ControlTransfer({0xC0, MockUsbDevice::kFetch, 0, 0, 300}).data, data);
  EXPECT_EQ(remote->ControlTransfer({0xC0, MockUsbDevice::kFetch, 0, 0, 4096}).value, 300);
  EXPECT_EQ(remote->ControlTransfer({0x40, MockUsbDevice::kStall, 0, 0, 0}).value, LIBUSB_ERROR_PIPE);
  EXPECT_EQ(remote->ControlTransfer({0xC0, MockUsbDevice::kSilent, 0, 0, 8}, {}, 20).value, LIBUSB_ERROR_TIMEOUT);
  EXPECT_EQ(remote->GetStringDescriptor(2, 0x0409, 255).value,
            static_cast<int>(2 + 2 * std::string_view(MockUsbDevice::kName).size()));
  EXPECT_EQ(remote->Transfer(Command::kBulkTransfer, 0x85, 8).status, LIBUSB_TRANSFER_STALL);
  EXPECT_EQ(remote->ControlTransfer({0x02, LIBUSB_REQUEST_CLEAR_FEATURE, 0, 0x85, 0}).value, 0);
  EXPECT_EQ(remote->Transfer(Command::kBulkTransfer, 0x85, 8).status, 0);
  // A port reset meant for a hub becomes the device's own.
  EXPECT_EQ(remote->ControlTransfer({0x23, 3, 4, 1, 0}).value, 0);
  EXPECT_EQ(mDevice.Look().resets, 1);
}

TEST_F(MockDevice, IsochronousPacketsKeepTheirLengthsAndStatuses) {
  const auto remote = Taken();
  mDevice.SetPacketStatuses({0, -EPROTO, 0, -EPIPE, -EOVERFLOW, -ENODEV});
  const std::vector<std::uint32_t> lengths = {100, 64, 0, 1024, 8, 30};
  const std::vector<std::uint32_t> moved = {100, 32, 0, 512, 4, 15};
  const std::vector<libusb_transfer_status> statuses = {LIBUSB_TRANSFER_COMPLETED, LIBUSB_TRANSFER_ERROR,
                                                        LIBUSB_TRANSFER_COMPLETED, LIBUSB_TRANSFER_STALL,
                                                        LIBUSB_TRANSFER_OVERFLOW,  LIBUSB_TRANSFER_NO_DEVICE};
  const Bytes data = MockUsbDevice::Pattern(100 + 64 + 1024 + 8 + 30);

  const TransferReply in = remote->IsoTransfer(0x86, lengths);
  ASSERT_EQ(in.isoPackets, lengths.size());
  ASSERT_EQ(in.data.size(), lengths.size() * 16 + 100 + 32 + 512 + 4 + 15);
  std::size_t place = lengths.size() * 16;
  std::size_t source = 0;
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    const IsoPacketRecord packet = LoadIsoRecord(in.data.data(), i);
    EXPECT_EQ(std::tie(packet.offset, packet.length, packet.actual_length, packet.status),
              std::tuple(place, lengths[i], moved[i], unsigned{statuses[i]}));
    const auto begin = data.begin() + static_cast<std::ptrdiff_t>(source);
    EXPECT_TRUE(std::equal(begin, begin + moved[i], in.data.begin() + static_cast<std::ptrdiff_t>(place)))
        << "packet " << i;
    place += moved[i];
    source += lengths[i];
  }

  const TransferReply out = remote->IsoTransfer(0x06, lengths, data);
  EXPECT_EQ(out.status, 0);
  EXPECT_EQ(out.isoPackets, lengths.size());
  EXPECT_THAT(out.data, testing::IsEmpty());  // This platform's libusb counts no bytes there.
  EXPECT_EQ(mDevice.Taken(0x06), data);
}

// The kernel drops the transfers then. They must not look as if they had moved nothing well.
TEST_F(MockDevice, TransfersThatTheKernelDropsAreCancelled) {
  const auto remote = Taken();
  const std::vector<std::function<int()>> acts = {
      [&] { return remote->Status(Command::kReleaseAllInterface); },
      [&] { return remote->Status(Command::kResetDevice); },
      [&] { return remote->SetInterfaceAltSetting(0, 0); },
  };
  for (std::size_t i = 0; i < acts.size(); ++i) {
    const std::uint32_t id = Submit(*remote, Command::kBulkTransfer, 0x84, 64);
    ASSERT_TRUE(mDevice.AwaitPending(1));
    EXPECT_EQ(acts[i](), 0);
    EXPECT_THAT(mTally.Await(i + 1)[id], ElementsAre(int{LIBUSB_TRANSFER_CANCELLED})) << i;
    ASSERT_EQ(remote->Status(Command::kClaimAllInterface), 0);
  }
  const std::uint32_t other = Submit(*remote, Command::kBulkTransfer, 0x84, 64);
  EXPECT_EQ(remote->SetInterfaceAltSetting(1, 0), 0);
  EXPECT_EQ(mDevice.Look().pending, 1U) << "transfer " << other;
}

TEST_F(MockDevice, EachOf32IsAnsweredOnceAndAtOnceHoweverItEnds) {
  constexpr std::size_t kEach = 16;
  for (const char* way : {"close", "session", "unplug"}) {
    SCOPED_TRACE(way);
    Tally tally;
    auto remote = Redirect(mDevice, tally);
    EXPECT_EQ(remote->Status(Command::kOpenUsbDev), 0);
    EXPECT_EQ(remote->Status(Command::kClaimAllInterface), LIBUSB_ERROR_BUSY);
    Take(*remote);
    EXPECT_THAT(mDevice.Look().driverBound, Each(false));
    for (std::size_t i = 0; i < kEach; ++i) {
      Submit(*remote, Command::kBulkTransfer, 0x84, 4096);
      Submit(*remote, Command::kInterruptTransfer, 0x83, 64);
    }
    ASSERT_TRUE(mDevice.AwaitPending(2 * kEach));
    const auto begin = Clock::now();
    int status = LIBUSB_TRANSFER_CANCELLED;
    if (way == std::string_view("close")) {
      EXPECT_EQ(remote->Status(Command::kCloseUsbDev), 0);
      EXPECT_EQ(remote->Status(Command::kOpenUsbDev), 0);  // The end attaches what is open.
    } else if (way == std::string_view("session")) {
      remote.reset();
      EXPECT_THAT(mDevice.Look().driverBound, Each(true));
    } else {
      mDevice.Unplug();
      status = LIBUSB_TRANSFER_NO_DEVICE;
    }
    const Tally::Statuses statuses = tally.Await(2 * kEach);
    EXPECT_LT(Clock::now() - begin, kPrompt);
    EXPECT_THAT(statuses, SizeIs(2 * kEach));
    EXPECT_THAT(statuses, Each(Pair(testing::_, ElementsAre(status))));
    if (status == LIBUSB_TRANSFER_NO_DEVICE) {
      EXPECT_EQ(remote->Transfer(Command::kBulkTransfer, 0x82, 8).status, LIBUSB_TRANSFER_ERROR);
      EXPECT_LT(remote->ControlTransfer({0xC0, MockUsbDevice::kFetch, 0, 0, 8}).value, 0);
    }
    const auto closing = Clock::now();
    remote.reset();
    EXPECT_LT(Clock::now() - closing, kPrompt);
  }
}

std::size_t OpenDescriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// One session of random transfers, cancels and perhaps an unplug, ended in one of three ways.
void RandomSession(MockUsbDevice& device, std::mt19937& random) {
  const auto pick = [&random](std::size_t count) { return static_cast<std::uint32_t>(random() % count); };
  Tally tally;
  auto remote = Redirect(device, tally);
  Take(*remote);
  constexpr std::array<std::pair<Command, std::uint8_t>, 6> kTargets = {{
      {Command::kBulkTransfer, 0x02},
      {Command::kBulkTransfer, 0x82},
      {Command::kBulkTransfer, 0x84},
      {Command::kBulkTransfer, 0x85},
      {Command::kInterruptTransfer, 0x03},
      {Command::kInterruptTransfer, 0x83},
  }};
  std::uint32_t last = 0;
  const std::uint32_t count = 1 + pick(60);
  const std::uint32_t unplugAt = pick(3) == 0 ? 1 + pick(count) : 0;
  while (last < count) {
    if (pick(8) == 0) {
      last = remote->SubmitIsoTransfer(pick(2) == 0 ? 0x06 : 0x86, std::vector<std::uint32_t>(8, 64), Bytes(512),
                                       [](const TransferReply&) {});
    } else {
      const auto [command, endpoint] = kTargets[pick(kTargets.size())];
      last = Submit(*remote, command, endpoint, 1 + pick(4096));
    }
    if (pick(3) == 0) {
      const std::int32_t result = remote->CancelTransfer(1 + pick(last));
      EXPECT_THAT(result, testing::AnyOf(0, LIBUSB_ERROR_NOT_FOUND, LIBUSB_ERROR_NO_DEVICE));
    }
    if (last == unplugAt) {
      device.Unplug();
    }
  }
  const bool closes = pick(2) == 0;
  if (closes) {
    EXPECT_EQ(remote->Status(Command::kCloseUsbDev), 0);
    EXPECT_THAT(tally.Await(0), SizeIs(count));  // By the time the close is answered.
  }
  if (unplugAt == 0) {
    if (closes) {
      EXPECT_EQ(remote->Status(Command::kOpenUsbDev), 0);  // The end attaches what is open.
    }
    remote.reset();
    EXPECT_TRUE(device.AwaitClosed());
    EXPECT_THAT(device.Look().driverBound, Each(true));
  } else {
    remote.reset();
    device.Plug();
  }
  EXPECT_THAT(tally.Await(0), Each(Pair(testing::_, SizeIs(1))));
}

TEST_F(MockDevice, RandomCancelsClosesAndUnplugsLeaveNothingBehind) {
  std::mt19937 random(20240117);
  RandomSession(mDevice, random);
  ASSERT_TRUE(mDevice.AwaitClosed());
  const std::size_t before = OpenDescriptors();
  int sessions = 1;
  for (const auto end = Clock::now() + std::chrono::seconds(gSoak); Clock::now() < end && !HasFailure(); ++sessions) {
    RandomSession(mDevice, random);
  }
  ASSERT_TRUE(mDevice.AwaitClosed());
  EXPECT_EQ(OpenDescriptors(), before);
  RecordProperty("sessions", sessions);
}

}  // namespace
}  // namespace vel

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  if (argc == 3 && std::string_view(argv[1]) == "--soak") {
    vel::gSoak = static_cast<int>(std::strtol(argv[2], nullptr, 10));
  }
  return RUN_ALL_TESTS();
}
