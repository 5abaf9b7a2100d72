#include "remote/RemoteDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <set>
#include <string>
#include <thread>

namespace vel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

// The far end of the channel: keeps what was sent, and replies when it is told to or as `answer`
// does.
class ScriptedChannel final : public PacketChannel {
 public:
  void Start(Receiver receiver) override { mReceiver = std::move(receiver); }

  bool Send(std::unique_ptr<VelPacket> packet) override {
    if (refuses) {
      return false;
    }
    const VelPacket& sent = *packet;
    {
      const std::lock_guard lock(mMutex);
      mSent.push_back(std::move(packet));
      mChanged.notify_all();
    }
    if (answer) {
      answer(sent);
    }
    return true;
  }

  void Close() override { ++closes; }

  // The first `count` packets that were sent, once they were.
  std::vector<const VelPacket*> AwaitSent(std::size_t count) {
    std::unique_lock lock(mMutex);
    EXPECT_TRUE(mChanged.wait_for(lock, 30s, [&] { return mSent.size() >= count; }));
    std::vector<const VelPacket*> packets;
    for (const auto& packet : mSent) {
      packets.push_back(packet.get());
    }
    return packets;
  }

  void Reply(int code, int reqId, const Bytes& payload) {
    auto packet = std::make_unique<VelPacket>(1024);
    packet->InitHeader(static_cast<std::uint8_t>(reqId), static_cast<std::uint16_t>(code), 1);
    packet->Append(payload.data(), static_cast<std::uint32_t>(payload.size()));
    mReceiver.onPacket(std::move(packet));
  }
  void EndStream() { mReceiver.onClosed(); }

  std::function<void(const VelPacket&)> answer;
  bool refuses = false;
  int closes = 0;

 private:
  Receiver mReceiver;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<std::unique_ptr<VelPacket>> mSent;
};

class RemoteDeviceTest : public testing::Test {
 protected:
  void Make(std::chrono::milliseconds replyTime = 30s) {
    auto channel = std::make_unique<ScriptedChannel>();
    mChannel = channel.get();
    mRemote = std::make_unique<RemoteDevice>(std::move(channel), 0x12345678, replyTime);
  }
  ScriptedChannel& Channel() { return *mChannel; }
  RemoteDevice& Remote() { return *mRemote; }

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
  ScriptedChannel* mChannel = nullptr;
  std::unique_ptr<RemoteDevice> mRemote;
};

TEST_F(RemoteDeviceTest, EachCallSendsItsCommandAndReadsItsReply) {
  Make();
  const Bytes text = {'p'};
  using Value = std::function<std::int32_t(RemoteDevice&)>;
  const std::pair<int, Value> calls[] = {
      {0x102A, [](RemoteDevice& remote) { return remote.Status(Command::kGetDeviceSpeed); }},
      {0x101A, [](RemoteDevice& remote) { return remote.SetConfiguration(1); }},
      {0x101E, [](RemoteDevice& remote) { return remote.SetInterfaceAltSetting(1, 2); }},
      {0x102C, [&](RemoteDevice& remote) { return remote.SetRedirPolicy(text); }},
      {0x1020, [](RemoteDevice& remote) { return remote.CancelTransfer(5); }},
      {0x100E, [](RemoteDevice& remote) { return remote.GetStringDescriptor(1, 0x0409, 255).value; }},
      {0x1022, [](RemoteDevice& remote) { return remote.ControlTransfer({}).value; }}};
  std::size_t sent = 0;
  for (const auto& [code, call] : calls) {
    SCOPED_TRACE(code);
    Channel().answer = [&, wanted = code](const VelPacket& request) {
      EXPECT_EQ(request.GetCommand(), wanted);
      EXPECT_EQ(request.GetDevId(), 0x12345678U);
      Channel().Reply(wanted + 1, request.GetReqId(), {0xFB, 0xFF, 0xFF, 0xFF, 9});
    };
    EXPECT_EQ(call(Remote()), -5);
    EXPECT_EQ(Channel().AwaitSent(++sent).size(), sent);
  }
  Channel().answer = [&](const VelPacket& request) {
    Channel().Reply(request.GetCommand() + 1, request.GetReqId(), {2, 0, 0, 0, 3, 4});
  };
  EXPECT_THAT(Remote().GetDeviceDescriptor(), ElementsAre(2, 0, 0, 0, 3, 4));
  EXPECT_THAT(Remote().GetConfiguration(), ElementsAre(2, 0, 0, 0, 3, 4));
  EXPECT_THAT(Remote().ControlTransfer({}).data, ElementsAre(3, 4));
}

TEST_F(RemoteDeviceTest, SynchronousReplyIsMatchedByCommandAndReqId) {
  Make();
  Channel().answer = [&](const VelPacket& request) {
    const int id = request.GetReqId();
    Channel().Reply(0x100B, id, {1, 0, 0, 0});      // Another command.
    Channel().Reply(0x102B, id + 1, {2, 0, 0, 0});  // Another request.
    Channel().Reply(0x102A, id, {3, 0, 0, 0});      // No reply at all.
    Channel().Reply(0x0005, id, {4, 0, 0, 0});      // Nothing answers a ping.
    Channel().Reply(0x0000, id, {5, 0, 0, 0});
    Channel().Reply(0xFFFF, id, {6, 0, 0, 0});
    Channel().Reply(0x1025, id, {7, 0, 0, 0, 0, 0, 0, 0});  // A transfer that nobody sent.
    Channel().Reply(0x102B, id, {42, 0, 0, 0});
  };
  EXPECT_EQ(Remote().Status(Command::kGetDeviceSpeed), 42);
}

TEST_F(RemoteDeviceTest, ReplyWithoutAResultIsAnError) {
  Make();
  Channel().answer = [&](const VelPacket& request) { Channel().Reply(0x1011, request.GetReqId(), {1, 2, 3}); };
  EXPECT_EQ(ErrorOf([&] { Remote().Status(Command::kResetDevice); }), "the reply to \"reset device\" holds no result");
}

TEST_F(RemoteDeviceTest, CallGivesUpAfterTheReplyTimeAndALateReplyIsIgnored) {
  Make(20ms);
  EXPECT_EQ(ErrorOf([&] { Remote().Status(Command::kGetDeviceSpeed); }),
            "no reply to \"get device speed\" within 20 ms");
  EXPECT_EQ(ErrorOf([&] { Remote().Transfer(Command::kBulkTransfer, 0x81, 4); }),
            "no reply to a transfer within 20 ms");
  Channel().Reply(0x102B, Channel().AwaitSent(2)[0]->GetReqId(), {1, 0, 0, 0});
  Channel().Reply(0x1025, 0, {1, 0, 0, 0, 0, 0, 0, 0});
  Channel().answer = [&](const VelPacket& request) { Channel().Reply(0x102B, request.GetReqId(), {2, 0, 0, 0}); };
  EXPECT_EQ(Remote().Status(Command::kGetDeviceSpeed), 2);
}

TEST_F(RemoteDeviceTest, EndOfTheStreamWakesWhoeverWaits) {
  Make();
  auto status =
      std::async(std::launch::async, [&] { return ErrorOf([&] { Remote().Status(Command::kResetDevice); }); });
  auto bulk = std::async(std::launch::async,
                         [&] { return ErrorOf([&] { Remote().Transfer(Command::kBulkTransfer, 0x81, 4); }); });
  auto iso =
      std::async(std::launch::async, [&] { return ErrorOf([&] { Remote().IsoTransfer(0x83, std::array{8U}); }); });
  Channel().AwaitSent(3);
  const auto start = std::chrono::steady_clock::now();
  Channel().EndStream();
  EXPECT_EQ(status.get(), "the device is gone (while waiting for \"reset device\")");
  EXPECT_EQ(bulk.get(), "the device is gone (while waiting for a transfer)");
  EXPECT_EQ(iso.get(), "the device is gone (while waiting for a transfer)");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 15s);
  EXPECT_THAT(ErrorOf([&] { Remote().Status(Command::kResetDevice); }), HasSubstr("the device is gone"));
  EXPECT_THAT(ErrorOf([&] { Remote().Transfer(Command::kBulkTransfer, 0x81, 4); }), HasSubstr("the device is gone"));
}

TEST_F(RemoteDeviceTest, RefusedSendIsAnErrorAtOnce) {
  Make();
  Channel().refuses = true;
  EXPECT_THAT(ErrorOf([&] { Remote().Status(Command::kResetDevice); }), HasSubstr("the device is gone"));
  const auto mark = std::make_shared<int>(0);
  EXPECT_EQ(ErrorOf([&] {
              Remote().SubmitTransfer(Command::kBulkTransfer, 0x81, 4, {}, [mark](const TransferReply&) { FAIL(); });
            }),
            "the device is gone");
  EXPECT_EQ(mark.use_count(), 1) << "the callback is kept";
}

TEST_F(RemoteDeviceTest, TransferIsMatchedByCommandAndStreamIdAndDoneOnce) {
  Make();
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

TEST_F(RemoteDeviceTest, IsochronousReplyCarriesItsPacketCount) {
  Make();
  Channel().answer = [&](const VelPacket& request) {
    EXPECT_EQ(request.GetCommand(), 0x1028);
    Channel().Reply(0x1029, 0, {1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0});  // Too short for one.
    Channel().Reply(0x1029, 0, {1, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 5, 6});
  };
  const TransferReply reply = Remote().IsoTransfer(0x83, std::array{8U, 8U});
  EXPECT_EQ(reply.isoPackets, 2U);
  EXPECT_THAT(reply.data, ElementsAre(5, 6));
}

TEST_F(RemoteDeviceTest, AllReqIdsMayBeInFlightAndOneMoreIsRefused) {
  Make();
  std::vector<std::future<std::int32_t>> calls;
  for (int i = 0; i < 256; ++i) {
    calls.push_back(std::async(std::launch::async, [&] { return Remote().Status(Command::kGetDeviceSpeed); }));
  }
  const auto sent = Channel().AwaitSent(256);
  EXPECT_EQ(ErrorOf([&] { Remote().Status(Command::kGetDeviceSpeed); }),
            "more requests wait for a reply than there are request ids");
  std::set<int> ids;
  for (auto packet = sent.rbegin(); packet != sent.rend(); ++packet) {
    ids.insert((*packet)->GetReqId());
    Channel().Reply(0x102B, (*packet)->GetReqId(), {(*packet)->GetReqId(), 0, 0, 0});
  }
  EXPECT_EQ(ids.size(), 256U);
  std::set<int> values;
  for (auto& call : calls) {
    values.insert(call.get());
  }
  EXPECT_EQ(values, ids);
}

TEST_F(RemoteDeviceTest, ConcurrentCallersGetTheirOwnReplies) {
  Make();
  Channel().answer = [&](const VelPacket& request) {
    // A cancel is answered with the id that it names, a transfer with its stream id, length and
    // data.
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

TEST_F(RemoteDeviceTest, PingIsSentAndNotWaitedFor) {
  Make();
  Remote().Ping(7, 8);
  EXPECT_EQ(Channel().AwaitSent(1)[0]->GetCommand(), 0x0004);
}

TEST(RemoteDeviceEndTest, DestructionClosesTheChannel) {
  struct Channel final : PacketChannel {
    explicit Channel(int& counter) : closes(counter) {}
    void Start(Receiver) override {}
    bool Send(std::unique_ptr<VelPacket>) override { return true; }
    void Close() override { ++closes; }
    int& closes;
  };
  int closes = 0;
  RemoteDevice(std::make_unique<Channel>(closes));
  EXPECT_EQ(closes, 1);
}

}  // namespace
}  // namespace vel
