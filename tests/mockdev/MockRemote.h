#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_REMOTE_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_REMOTE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "mockdev/MockUsbDevice.h"
#include "protocol/ByteReader.h"
#include "remote/ModuleChannel.h"
#include "remote/RemoteDevice.h"
#include "support/Collected.h"

namespace vel {

// The statuses of all replies to transfers, by stream id: how often each was answered, and how.
class Tally {
 public:
  using Statuses = std::map<std::uint32_t, std::vector<int>>;

  void Note(const VelPacket& packet) {
    const CommandInfo* request = FindCommand(static_cast<std::uint16_t>(packet.GetCommand() - 1));
    if (request != nullptr && request->reply == ReplyKind::kAsync) {
      ByteReader reader(packet.PayloadBytes());
      const auto streamId = reader.Host<std::uint32_t>();
      mReplies.Add({streamId, static_cast<int>(reader.Host<std::uint32_t>())});
    }
  }
  // Once that many were answered, or more; as they are after the time limit otherwise.
  Statuses Await(std::size_t count) {
    Statuses statuses;
    for (const auto& [streamId, status] : mReplies.Await(std::max(count, mReplies.Count()))) {
      statuses[streamId].push_back(status);
    }
    return statuses;
  }

 private:
  Collected<std::pair<std::uint32_t, int>> mReplies;
};

// A channel that counts the replies which pass.
class TalliedChannel final : public PacketChannel {
 public:
  TalliedChannel(std::unique_ptr<PacketChannel> channel, Tally& tally) : mChannel(std::move(channel)), mTally(tally) {}
  void Start(Receiver receiver) override {
    const auto note = [this, next = std::move(receiver.onPacket)](std::unique_ptr<VelPacket> reply) {
      mTally.Note(*reply);
      next(std::move(reply));
    };
    mChannel->Start({.onPacket = note, .onClosed = std::move(receiver.onClosed)});
  }
  bool Send(std::unique_ptr<VelPacket> packet) override { return mChannel->Send(std::move(packet)); }
  void Close() override { mChannel->Close(); }

 private:
  const std::unique_ptr<PacketChannel> mChannel;
  Tally& mTally;
};

inline std::unique_ptr<RemoteDevice> Redirect(const MockUsbDevice& device, Tally& tally) {
  const DeviceIdentity identity{MockUsbDevice::kBus, device.Address(), MockUsbDevice::kVendor, MockUsbDevice::kProduct,
                                ""};
  return std::make_unique<RemoteDevice>(
      std::make_unique<TalliedChannel>(std::make_unique<ModuleChannel>(ModuleLibrary::Load(VIRTUSB_MODULE), identity,
                                                                       ModuleSession::Answers{.failures = true}),
                                       tally));
}

// Opens, detaches the drivers, claims, and chooses the setting with isochronous endpoints.
inline void Take(RemoteDevice& remote) {
  ASSERT_EQ(remote.Status(Command::kOpenUsbDev), 0);
  ASSERT_EQ(remote.Status(Command::kDetachKernelDriver), 0);
  ASSERT_EQ(remote.Status(Command::kClaimAllInterface), 0);
  ASSERT_EQ(remote.SetInterfaceAltSetting(1, 1), 0);
}

inline std::uint32_t Submit(RemoteDevice& remote, Command command, std::uint8_t endpoint, std::uint32_t length) {
  return remote.SubmitTransfer(command, endpoint, length, MockUsbDevice::Pattern(length), [](const TransferReply&) {});
}

}  // namespace vel

#endif
