// The module over the real libusb, on a mocked kernel.
#include <gmock/gmock.h>
#include <libusb-1.0/libusb.h>

#include <cerrno>
#include <functional>
#include <string_view>

#include "mockdev/MockRemote.h"
#include "protocol/IsoTable.h"

namespace vel {
namespace {

using testing::ElementsAre;

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

}  // namespace
}  // namespace vel
