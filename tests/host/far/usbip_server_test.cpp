#include "far/UsbipServer.h"

#include <gmock/gmock.h>
#include <sys/socket.h>

#include <thread>

#include "FakeFarEnd.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kReplyBytes = 8;  // And for an import the record, behind a status of 0.
constexpr std::size_t kRecordBytes = 312;

class UsbipServerTest : public testing::Test {
 protected:
  ~UsbipServerTest() override { mStop.Raise(); }

  // The far end lives as long as the device.
  FakeFarEnd& Add(std::uint32_t number) {
    auto channel = std::make_unique<FakeFarEnd>();
    FakeFarEnd& end = *channel;
    mServer.Add(number, "it", std::make_unique<FarDevice>(std::move(channel), FarDevice::Options{}));
    return end;
  }
  UniqueFd Ask(Bytes request) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    mServer.Serve(UniqueFd(ends[1]), "guest");
    EXPECT_GT(send(ends[0], request.data(), request.size(), MSG_NOSIGNAL), 0);
    return UniqueFd(ends[0]);
  }
  // Nothing when it is refused. Otherwise the device is the guest's when this returns.
  UniqueFd Import(char number) {
    Bytes request = {1, 0x11, 0x80, 3, 0, 0, 0, 0, '1', '-', static_cast<std::uint8_t>(number)};
    request.resize(40);
    UniqueFd guest = Ask(request);
    Bytes reply(kReplyBytes + kRecordBytes);
    const bool whole = recv(guest.Get(), reply.data(), reply.size(), MSG_WAITALL) == static_cast<int>(reply.size());
    return whole ? std::move(guest) : UniqueFd();
  }
  // The last digits of the bus ids.
  std::string List() {
    const UniqueFd client = Ask({1, 0x11, 0x80, 5, 0, 0, 0, 0});
    std::string bytes;
    std::array<char, 4096> room{};
    for (ssize_t count = 0; (count = recv(client.Get(), room.data(), room.size(), 0)) > 0;) {
      bytes.append(room.data(), static_cast<std::size_t>(count));
    }
    std::string numbers;
    for (std::size_t at = 0; (at = bytes.find(std::string("\0"
                                                          "1-",
                                                          3),
                                              at)) != std::string::npos;
         ++at) {
      numbers += bytes[at + 3];
    }
    return numbers;
  }
  static bool IsUnplugged(const UniqueFd& guest) {
    char byte = 0;
    return recv(guest.Get(), &byte, 1, 0) == 0;
  }

  const StopSignal mStop;
  UsbipServer mServer{mStop, [](const std::string&) {}};
};

TEST_F(UsbipServerTest, DevicesComeAndGoAndTheirGuestsLeaveWithThem) {
  EXPECT_EQ(List(), "");
  FakeFarEnd& first = Add(2);
  Add(1);
  EXPECT_EQ(List(), "12");
  const UniqueFd guest = Import('2');
  EXPECT_TRUE(guest.IsValid());
  EXPECT_FALSE(Import('2').IsValid());
  mServer.Remove(2);
  EXPECT_FALSE(Import('2').IsValid());
  FakeFarEnd& second = Add(2);  // The same port's next, while the guest of the one before still holds that.
  EXPECT_EQ(List(), "12");
  const UniqueFd other = Import('2');
  EXPECT_TRUE(other.IsValid());
  first.End();
  EXPECT_TRUE(IsUnplugged(guest));
  second.End();
  EXPECT_TRUE(IsUnplugged(other));
  EXPECT_EQ(List(), "1");
  mServer.Remove(2);
  mServer.Remove(7);
  mServer.Remove(1);
  EXPECT_EQ(List(), "");
}

TEST_F(UsbipServerTest, DevicesComeAndGoBesideClients) {
  std::jthread changing([this](const std::stop_token& stop) {
    for (std::uint32_t i = 0; !stop.stop_requested(); ++i) {
      FakeFarEnd& end = Add(1);
      if (i % 2 == 0) {
        end.End();
      }
      mServer.Remove(1);
    }
  });
  for (int i = 0; i < 200; ++i) {
    EXPECT_THAT(List(), testing::AnyOf("", "1"));
    const UniqueFd guest = Import('1');
  }
}

}  // namespace
}  // namespace vel
