#include <gtest/gtest.h>

#include <array>

#include "Net.h"
#include "os/Fd.h"

namespace vel {
namespace {

SocketAddress Loopback() {
  return Resolve("127.0.0.1", "0", Use::kToListen, Resolving::kNumbers).found.at(0);
}

int PollOne(const UniqueFd& fd, short events, int limitMilliseconds) {
  PollFd one{fd.Get(), events, 0};
  return Poll({&one, 1}, limitMilliseconds);
}

// Both ends of a TCP connection.
struct Connection {
  Connection() {
    int error = 0;
    const UniqueFd listener = ListenOn(Loopback(), 1, error);
    theirs = StartConnect(LocalAddressOf(listener.Get()), error);
    PollOne(listener, kReadable, -1);
    SocketAddress peer;
    ours = Accept(listener.Get(), peer);
  }
  // Until nothing more goes for a moment. False when there is said to be room, and is none.
  bool Fill() const {
    const std::array<char, 65536> bytes{};
    do {
      if (SendNow(ours.Get(), bytes.data(), bytes.size()) < 0) {
        return false;
      }
      while (SendNow(ours.Get(), bytes.data(), bytes.size()) > 0) {
      }
    } while (PollOne(ours, kWritable, 50) > 0);
    return true;
  }

  UniqueFd ours;
  UniqueFd theirs;
};

TEST(Poll, WaitsForRoomAlsoWhenTheOtherSideHasEndedItsOutput) {
  Connection connection;
  constexpr int kItsOutput = 1;
  shutdown(connection.theirs.Get(), kItsOutput);
  ASSERT_EQ(PollOne(connection.ours, kReadable, -1), 1);
  ASSERT_TRUE(connection.Fill());
  std::array<char, 65536> bytes{};
  while (PollOne(connection.ours, kWritable, 0) == 0) {
    ReceiveNow(connection.theirs.Get(), bytes.data(), bytes.size());
  }
  ASSERT_TRUE(connection.Fill());
  connection.theirs = UniqueFd();  // With bytes unread: aborts it.
  EXPECT_EQ(PollOne(connection.ours, kWritable, -1), 1);
  EXPECT_LT(SendNow(connection.ours.Get(), bytes.data(), bytes.size()), 0);
}

TEST(Socket, AllAddressesAreThoseOfIpv4Too) {
  int error = 0;
  const UniqueFd listener = ListenOn(Resolve("::", "0", Use::kToListen, Resolving::kNumbers).found.at(0), 1, error);
  if (!listener.IsValid()) {
    GTEST_SKIP() << "no IPv6 here: " << FdErrorText(error);
  }
  const std::string name = LocalAddressOf(listener.Get()).Name();
  const UniqueFd client = StartConnect(
      Resolve("127.0.0.1", name.substr(name.rfind(':') + 1), Use::kToConnect, Resolving::kNumbers).found.at(0), error);
  EXPECT_EQ(PollOne(listener, kReadable, 5000), 1);
}

TEST(Socket, OneThatIsNotToBeHadIsExplained) {
  SocketAddress address = Loopback();
  address.protocol = IPPROTO_UDP;
  int connecting = 0;
  int listening = 0;
  EXPECT_FALSE(StartConnect(address, connecting).IsValid());
  EXPECT_FALSE(ListenOn(address, 1, listening).IsValid());
  EXPECT_EQ(FdErrorText(listening), FdErrorText(connecting));
}

}  // namespace
}  // namespace vel
