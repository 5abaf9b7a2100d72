#include "remote/PacketFramer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "remote/RequestBuilder.h"

namespace vel {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

class PacketFramerTest : public testing::Test {
 protected:
  bool Feed(const Bytes& bytes) { return mFramer.Feed(bytes); }

  std::vector<std::unique_ptr<VelPacket>> mPackets;
  PacketFramer mFramer{[this](std::unique_ptr<VelPacket> packet) { mPackets.push_back(std::move(packet)); }};
};

Bytes WireOf(const VelPacket& packet) {
  return {packet.Wire().begin(), packet.Wire().end()};
}

Bytes Header(std::uint32_t length, std::uint8_t magic = 0x27) {
  Bytes header = {magic, 1, 0x24, 0x10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  for (std::size_t i = 0; i < 4; ++i) {
    header[8 + i] = static_cast<std::uint8_t>(length >> (8 * i));
  }
  return header;
}

TEST_F(PacketFramerTest, StreamMayBeCutAnywhere) {
  const std::vector<Bytes> sent = {WireOf(*BuildRequest(Command::kOpenUsbDev, {1, 2})),
                                   WireOf(*BuildPing({3, 4}, 5, 6)),
                                   WireOf(*BuildU32Request(Command::kCancelTransfer, {7, 8}, 9))};
  Bytes stream;
  std::vector<std::size_t> ends = {0};
  for (const Bytes& packet : sent) {
    stream.insert(stream.end(), packet.begin(), packet.end());
    ends.push_back(stream.size());
  }
  const std::span<const std::uint8_t> all(stream);
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    SCOPED_TRACE(cut);
    std::vector<Bytes> got;
    PacketFramer framer([&](std::unique_ptr<VelPacket> packet) { got.push_back(WireOf(*packet)); });
    EXPECT_TRUE(framer.Feed(all.first(cut)));
    EXPECT_EQ(framer.InsidePacket(), !testing::Value(ends, testing::Contains(cut)));
    EXPECT_TRUE(framer.Feed(all.subspan(cut)));
    EXPECT_EQ(got, sent);
    EXPECT_FALSE(framer.InsidePacket());
  }
  std::vector<Bytes> got;
  PacketFramer framer([&](std::unique_ptr<VelPacket> packet) { got.push_back(WireOf(*packet)); });
  for (const std::uint8_t byte : stream) {
    EXPECT_TRUE(framer.Feed({&byte, 1}));
  }
  EXPECT_EQ(got, sent);
}

TEST_F(PacketFramerTest, LargestPacketArrivesWhole) {
  const std::uint32_t length = PacketFramer::kMaxPacketBytes;
  EXPECT_TRUE(Feed(Header(length)));
  EXPECT_TRUE(Feed(Bytes(length - 16, 0x5A)));
  ASSERT_EQ(mPackets.size(), 1U);
  EXPECT_EQ(mPackets[0]->GetPacketSize(), length);
  EXPECT_EQ(mPackets[0]->Wire().back(), 0x5A);
}

TEST_F(PacketFramerTest, OversizedPacketLosesItsDataAndTheNextOneIsWhole) {
  for (const std::uint32_t excess : {1U, 3U << 20U}) {
    SCOPED_TRACE(excess);
    mPackets.clear();
    std::uint32_t left = PacketFramer::kMaxPacketBytes + excess - 16;
    EXPECT_TRUE(Feed(Header(left + 16)));
    const Bytes chunk(1U << 20U, 0x5A);
    for (; left > 0; left -= std::min<std::uint32_t>(left, 1U << 20U)) {
      EXPECT_THAT(mPackets, IsEmpty());
      EXPECT_TRUE(mFramer.Feed(std::span(chunk).first(std::min<std::size_t>(left, chunk.size()))));
    }
    EXPECT_TRUE(Feed(WireOf(*BuildRequest(Command::kOpenUsbDev, {1, 2}))));
    ASSERT_EQ(mPackets.size(), 2U);
    EXPECT_EQ(mPackets[0]->GetPacketSize(), 32U);
    EXPECT_EQ(mPackets[0]->GetCommand(), 0x1024);
    EXPECT_THAT(mPackets[0]->PayloadBytes(), testing::Each(0x5A));
    EXPECT_THAT(WireOf(*mPackets[1]), ElementsAre(0x27, 1, 2, 0x10, 2, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0));
  }
}

TEST_F(PacketFramerTest, GarbageEndsTheStreamWithAReason) {
  struct {
    Bytes header;
    const char* reason;
  } const cases[] = {
      {Header(16, 0x26), "magic 38"}, {Header(15), "length 15"}, {Header(0), "length 0"}, {Bytes(16, 'G'), "magic 71"}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.reason);
    int packets = 0;
    PacketFramer framer([&](const std::unique_ptr<VelPacket>&) { ++packets; });
    Bytes stream = Header(16);
    stream.insert(stream.end(), test.header.begin(), test.header.end());
    EXPECT_FALSE(framer.Feed(stream));
    EXPECT_THAT(framer.Error(), HasSubstr(test.reason));
    EXPECT_THAT(framer.Error(), testing::Not(HasSubstr("\n")));
    EXPECT_EQ(packets, 1);
    EXPECT_FALSE(framer.Feed(Header(16)));
    EXPECT_EQ(packets, 1);
  }
}

TEST_F(PacketFramerTest, HeaderOfTheOtherByteOrderIsReadWhicheverWayItWasWritten) {
  struct {
    const char* name;
    Bytes header;
    std::uint16_t command;
  } const cases[] = {
      {"request in the writer's order", {0x27, 9, 0x00, 0x04, 0, 0, 0, 3, 0, 0, 0, 28, 1, 0, 0, 0}, 0x0004},
      {"request in this host's order", {0x27, 9, 0x04, 0x00, 3, 0, 0, 0, 28, 0, 0, 0, 1, 0, 0, 0}, 0x0004},
      {"reply in the writer's order", {0x27, 9, 0x10, 0x2D, 0, 0, 0, 3, 0, 0, 0, 28, 1, 0, 0, 0}, 0x102D},
      {"reply in this host's order", {0x27, 9, 0x2D, 0x10, 3, 0, 0, 0, 28, 0, 0, 0, 1, 0, 0, 0}, 0x102D},
      {"unknown command", {0x27, 9, 0x77, 0x66, 3, 0, 0, 0, 28, 0, 0, 0, 1, 0, 0, 0}, 0x6677}};
  const Bytes payload = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    mPackets.clear();
    EXPECT_TRUE(Feed(test.header));
    EXPECT_TRUE(Feed(payload));
    ASSERT_EQ(mPackets.size(), 1U);
    VelPacket& packet = *mPackets[0];
    EXPECT_EQ(packet.GetCommand(), test.command);
    EXPECT_EQ(packet.GetDevId(), 3U);
    EXPECT_EQ(packet.GetReqId(), 9);
    EXPECT_EQ(packet.GetPacketSize(), 28U);
    std::uint32_t value = 0;
    EXPECT_EQ(packet.ReadU32(&value), 0);
    EXPECT_EQ(value, 0x01020304U) << "the payload stays as it was written";
  }
}

TEST_F(PacketFramerTest, HeaderThatClaimsThisHostsOrderIsNeverSwapped) {
  EXPECT_FALSE(Feed({0x27, 9, 0x10, 0x02, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_THAT(mPackets, IsEmpty());
}

}  // namespace
}  // namespace vel
