#include "remote/RemoteDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>

#include "support/Collected.h"

namespace vel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

// The far end of the channel: replies when it is told to, or as `answer` does.
class ScriptedChannel final : public PacketChannel {
 public:
  void Start(Receiver receiver) override { mReceiver = std::move(receiver); }

  bool Send(std::unique_ptr<VelPacket> packet) override {
    mIds.Add(packet->GetReqId());
    if (answer) {
      answer(*packet);
    }
    return true;
  }

  void Close() override {}

  // The reqID of the packet number `count`, once it was sent.
  std::uint8_t AwaitSent(std::size_t count) { return mIds.Await(count).at(count - 1); }

  void Reply(int code, int reqId, const Bytes& payload) {
    auto packet = std::make_unique<VelPacket>(1024);
    packet->InitHeader(static_cast<std::uint8_t>(reqId), static_cast<std::uint16_t>(code), 1);
    packet->Append(payload.data(), static_cast<std::uint32_t>(payload.size()));
    mReceiver.onPacket(std::move(packet));
  }
  void EndStream() { mReceiver.onClosed("it went away"); }

  std::function<void(const VelPacket&)> answer;

 private:
  Receiver mReceiver;
  Collected<std::uint8_t> mIds;
};

class RemoteDeviceTest : public testing::Test {
 protected:
  ScriptedChannel& Channel() { return *mChannel; }
  RemoteDevice& Remote() { return mRemote; }

  // What a call that has to throw says.
  template <class Call>
  static std::string ErrorOf(Call call) {
    try {
      call();
    } catch (const RemoteError& error) {
      return error.what();
    }
    return "no error";
  }

 private:
  std::unique_ptr<ScriptedChannel> mMade = std::make_unique<ScriptedChannel>();
  ScriptedChannel* const mChannel = mMade.get();
  RemoteDevice mRemote{std::move(mMade), 0x12345678, kDeadline};
};

TEST_F(RemoteDeviceTest, CallWithoutAResultInTimeIsAnErrorAndALateReplyIsIgnored) {
  Channel().answer = [&](const VelPacket& request) { Channel().Reply(0x1011, request.GetReqId(), {1, 2, 3}); };
  EXPECT_THAT(ErrorOf([&] { Remote().Status(Command::kResetDevice); }), HasSubstr("holds no result"));
  auto made = std::make_unique<ScriptedChannel>();
  ScriptedChannel& channel = *made;
  RemoteDevice remote(std::move(made), 1, 20ms);
  EXPECT_THAT(ErrorOf([&] { remote.Status(Command::kGetDeviceSpeed); }), HasSubstr("within 20 ms"));
  EXPECT_THAT(ErrorOf([&] { remote.Transfer(Command::kBulkTransfer, 0x81, 4); }), HasSubstr("within 20 ms"));
  channel.Reply(0x102B, channel.AwaitSent(1), {1, 0, 0, 0});
  channel.Reply(0x1025, 0, {1, 0, 0, 0, 0, 0, 0, 0});
  channel.answer = [&](const VelPacket& request) { channel.Reply(0x102B, request.GetReqId(), {2, 0, 0, 0}); };
  EXPECT_EQ(remote.Status(Command::kGetDeviceSpeed), 2);
}

TEST_F(RemoteDeviceTest, EndOfTheStreamWakesWhoeverWaitsAndFailsWhatFollows) {
  const auto status = [&] { return ErrorOf([&] { Remote().Status(Command::kResetDevice); }); };
  const auto transfer = [&] { return ErrorOf([&] { Remote().Transfer(Command::kBulkTransfer, 0x81, 4); }); };
  auto waitingStatus = std::async(std::launch::async, status);
  auto waitingTransfer = std::async(std::launch::async, transfer);
  Channel().AwaitSent(2);
  Channel().EndStream();
  for (const std::string& error : {waitingStatus.get(), waitingTransfer.get(), status(), transfer()}) {
    EXPECT_THAT(error, HasSubstr("the device is gone: it went away"));
  }
}

TEST_F(RemoteDeviceTest, TransferIsMatchedByCommandAndStreamIdAndDoneOnce) {
  std::vector<TransferReply> done;
  const auto submit = [&](Command command) {
    return Remote().SubmitTransfer(command, 0x81, 4, {},
                                   [&](TransferReply reply) { done.push_back(std::move(reply)); });
  };
  const auto bulk = static_cast<std::uint8_t>(submit(Command::kBulkTransfer));
  const auto interrupt = static_cast<std::uint8_t>(submit(Command::kInterruptTransfer));
  ASSERT_NE(bulk, interrupt);
  Channel().Reply(0x1027, 0, {bulk, 0, 0, 0, 0, 0, 0, 0});  // Another command.
  Channel().Reply(0x1025, 0, {99, 0, 0, 0, 0, 0, 0, 0});    // Another stream.
  Channel().Reply(0x1025, 0, {bulk, 0, 0, 0, 0, 0, 0});     // Too short.
  EXPECT_THAT(done, IsEmpty());
  Channel().Reply(0x1027, 7, {interrupt, 0, 0, 0, 4, 0, 0, 0});  // Any reqID.
  Channel().Reply(0x1025, 0, {bulk, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3});
  Channel().Reply(0x1025, 0, {bulk, 0, 0, 0, 0, 0, 0, 0, 9});
  ASSERT_EQ(done.size(), 2U);
  EXPECT_EQ(done[0].status, 4);
  EXPECT_THAT(done[0].data, IsEmpty());
  EXPECT_EQ(done[1].status, 0);
  EXPECT_THAT(done[1].data, ElementsAre(1, 2, 3));
}

TEST_F(RemoteDeviceTest, ConcurrentCallersGetTheirOwnReplies) {
  Channel().answer = [&](const VelPacket& request) {
    // A cancel is answered with the id that it names, a transfer with its stream id, length and data.
    const auto fields = request.PayloadBytes();
    if (request.GetCommand() == 0x1020) {
      Channel().Reply(0x1021, request.GetReqId(), {fields.begin(), fields.begin() + 4});
    } else {
      Bytes reply(fields.begin() + 4, fields.end());
      Channel().Reply(0x1025, 0, reply);
    }
  };
  std::vector<std::jthread> callers;
  for (std::uint32_t caller = 0; caller < 4; ++caller) {
    callers.emplace_back([this, caller] {
      for (std::uint32_t i = 0; i < 200; ++i) {
        const std::uint32_t value = caller << 16U | i;
        EXPECT_EQ(Remote().CancelTransfer(value), static_cast<std::int32_t>(value));
        const Bytes data = {static_cast<std::uint8_t>(caller), static_cast<std::uint8_t>(i)};
        const TransferReply reply = Remote().Transfer(Command::kBulkTransfer, 0x01, value, data);
        EXPECT_EQ(reply.status, static_cast<std::int32_t>(value));
        EXPECT_EQ(reply.data, data);
      }
    });
  }
}

}  // namespace
}  // namespace vel
