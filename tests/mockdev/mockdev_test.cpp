// The module and the command over the real libusb, on a mocked kernel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <string_view>

#include "mockdev/MockUsbDevice.h"
#include "protocol/ByteReader.h"
#include "protocol/IsoTable.h"
#include "remote/ModuleChannel.h"
#include "remote/RemoteDevice.h"
#include "remote/StreamChannel.h"

namespace vel {
namespace {

using Clock = std::chrono::steady_clock;
using State = MockUsbDevice::State;
using testing::Each;
using testing::ElementsAre;

constexpr std::chrono::seconds kLimit{30};  // Only a failure reaches it.
constexpr int kCancelled = LIBUSB_TRANSFER_CANCELLED;
std::chrono::seconds gSoak{2};

// The replies to transfers as they pass on their way to the remote device.
class Tally {
 public:
  void Note(const VelPacket& packet) VEL_EXCLUDES(mMutex) {
    const CommandInfo* request = FindCommand(static_cast<std::uint16_t>(packet.GetCommand() - 1));
    if (request != nullptr && request->reply == ReplyKind::kAsync) {
      ByteReader reader(packet.PayloadBytes());
      const auto streamId = reader.Host<std::uint32_t>();
      const MutexLock lock(mMutex);
      mStatuses[streamId].push_back(static_cast<int>(reader.Host<std::uint32_t>()));
    }
  }
  // By stream id.
  std::map<std::uint32_t, std::vector<int>> Statuses() VEL_EXCLUDES(mMutex) {
    const MutexLock lock(mMutex);
    return mStatuses;
  }

 private:
  Mutex mMutex;
  std::map<std::uint32_t, std::vector<int>> mStatuses VEL_GUARDED_BY(mMutex);
};

class TalliedChannel final : public PacketChannel {
 public:
  TalliedChannel(std::unique_ptr<PacketChannel> channel, Tally& tally)
      : mChannel(std::move(channel)), mTally(tally) {}
  void Start(Receiver receiver) override {
    mChannel->Start({.onPacket =
                         [this, next = std::move(receiver.onPacket)](std::unique_ptr<VelPacket> packet) {
                           mTally.Note(*packet);
                           next(std::move(packet));
                         },
                     .onClosed = std::move(receiver.onClosed)});
  }
  bool Send(std::unique_ptr<VelPacket> packet) override { return mChannel->Send(std::move(packet)); }
  void Close() override { mChannel->Close(); }

 private:
  const std::unique_ptr<PacketChannel> mChannel;
  Tally& mTally;
};

void Take(RemoteDevice& remote) {
  ASSERT_EQ(remote.Status(Command::kOpenUsbDev), 0);
  ASSERT_EQ(remote.Status(Command::kDetachKernelDriver), 0);
  ASSERT_EQ(remote.Status(Command::kClaimAllInterface), 0);
  ASSERT_EQ(remote.SetInterfaceAltSetting(1, 1), 0);
}

class MockDeviceTest : public testing::Test {
 protected:
  MockDeviceTest() { mDevice.Plug(); }

  std::unique_ptr<RemoteDevice> Redirect(bool answersFailures = true) {
    const DeviceIdentity identity{MockUsbDevice::kBus, mDevice.Address(), MockUsbDevice::kVendor,
                                  MockUsbDevice::kProduct, ""};
    return std::make_unique<RemoteDevice>(std::make_unique<TalliedChannel>(
        std::make_unique<ModuleChannel>(ModuleLibrary::Load(VIRTUSB_MODULE), identity, answersFailures), mTally));
  }
  std::unique_ptr<RemoteDevice> Taken(bool answersFailures = true) {
    std::unique_ptr<RemoteDevice> remote = Redirect(answersFailures);
    Take(*remote);
    return remote;
  }

  Tally mTally;
  MockUsbDevice mDevice;
};

TEST_F(MockDeviceTest, BulkAndInterruptCarryEveryLength) {
  const auto remote = Taken();
  for (const std::uint32_t length : {1U, 511U, 512U, 16384U, 65536U}) {
    const Bytes data = MockUsbDevice::Pattern(length);
    EXPECT_EQ(remote->Transfer(Command::kBulkTransfer, 0x01, length, data).status, 0);
    EXPECT_EQ(remote->Transfer(Command::kBulkTransfer, 0x81, length).data, data);
    EXPECT_EQ(remote->Transfer(Command::kBulkTransfer, 0x82, length).data, data);
  }
}

}  // namespace
}  // namespace vel

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
