#include "remote/RemoteDevice.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "far/FakeFarEnd.h"

namespace vel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

class RemoteDeviceTest : public testing::Test {
 protected:
  FakeFarEnd& Channel() { return *mChannel; }
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
  std::unique_ptr<FakeFarEnd> mMade = std::make_unique<FakeFarEnd>();
  FakeFarEnd* const mChannel = mMade.get();
  RemoteDevice mRemote{std::move(mMade), 0x12345678, kDeadline};
};

TEST_F(RemoteDeviceTest, CallWithoutAResultInTimeIsAnErrorAndALateReplyIsIgnored) {
  Channel().answer = [](Command, auto) { return Bytes{1, 2, 3}; };
  EXPECT_THAT(ErrorOf([&] { Remote().Status(Command::kResetDevice); }), HasSubstr("holds no result"));
  auto made = std::make_unique<FakeFarEnd>();
  FakeFarEnd& channel = *made;
  channel.silent = true;
  RemoteDevice remote(std::move(made), 1, 20ms);
  EXPECT_THAT(ErrorOf([&] { remote.Status(Command::kGetDeviceSpeed); }), HasSubstr("within 20 ms"));
  EXPECT_THAT(ErrorOf([&] { remote.Transfer(Command::kBulkTransfer, 0x81, 4); }), HasSubstr("within 20 ms"));
  channel.Reply(0x102B, channel.TakeSent(1).at(0).reqId, {1, 0, 0, 0});
  channel.Reply(0x1025, 0, {1, 0, 0, 0, 0, 0, 0, 0});
  channel.answer = [](Command, auto) { return Bytes{2, 0, 0, 0}; };
  EXPECT_EQ(remote.Status(Command::kGetDeviceSpeed), 2);
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
  // A cancel is answered with the id that it names, a transfer with its stream id, length and data.
  Channel().answer = [](Command command, std::span<const std::uint8_t> fields) {
    return command == Command::kCancelTransfer ? Bytes(fields.begin(), fields.begin() + 4)
                                               : Bytes(fields.begin() + 4, fields.end());
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
