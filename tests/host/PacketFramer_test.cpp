#include "remote/PacketFramer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "support/ReadInto.h"

namespace vel {
namespace {

using testing::_;
using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

Bytes Header(std::uint32_t length) {
  Bytes header = {0x27, 1, 0x24, 0x10, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  for (std::size_t i = 0; i < 4; ++i) {
    header[8 + i] = static_cast<std::uint8_t>(length >> (8 * i));
  }
  return header;
}

class PacketFramerTest : public testing::Test {
 protected:
  std::vector<Bytes> mPackets;
  PacketFramer mFramer{[this](std::unique_ptr<VelPacket> packet) {
    mPackets.emplace_back(packet->Wire().begin(), packet->Wire().end());
  }};
};

TEST_F(PacketFramerTest, OversizedPacketLosesItsDataAndTheNextOneIsWhole) {
  for (const std::uint32_t excess : {0U, 1U, 3U << 20U}) {
    SCOPED_TRACE(excess);
    mPackets.clear();
    const std::uint32_t length = PacketFramer::kMaxPacketBytes + excess;
    EXPECT_TRUE(ReadInto(mFramer, Header(length)));
    EXPECT_TRUE(ReadInto(mFramer, Bytes(length - 16, 0x5A)));
    EXPECT_TRUE(ReadInto(mFramer, Header(16)));
    ASSERT_EQ(mPackets.size(), 2U);
    EXPECT_EQ(mPackets[0].size(), excess == 0 ? length : 32);
    EXPECT_EQ(mPackets[0].back(), 0x5A);
    EXPECT_EQ(mPackets[1], Header(16));
  }
}

TEST_F(PacketFramerTest, HeaderOfTheOtherByteOrderIsReadWhicheverWayItWasWritten) {
  const std::pair<Bytes, std::uint8_t> cases[] = {
      {{0x27, 9, 0x00, 0x04, 0, 0, 0, 3, 0, 0, 0, 18, 1, 0, 0, 0}, 0x04},  // A request in the writer's order,
      {{0x27, 9, 0x04, 0x00, 3, 0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0}, 0x04},  // and in this host's.
      {{0x27, 9, 0x10, 0x2D, 0, 0, 0, 3, 0, 0, 0, 18, 1, 0, 0, 0}, 0x2D},
      {{0x27, 9, 0x2D, 0x10, 3, 0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0}, 0x2D},
      {{0x27, 9, 0x77, 0x66, 3, 0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0}, 0x77}};  // An unknown command.
  for (const auto& [header, command] : cases) {
    mPackets.clear();
    EXPECT_TRUE(ReadInto(mFramer, header));
    EXPECT_TRUE(ReadInto(mFramer, Bytes{0xA, 0xB}));
    ASSERT_EQ(mPackets.size(), 1U);
    // The payload stays as it was written.
    EXPECT_THAT(mPackets[0], ElementsAre(0x27, 9, command, _, 3, 0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0, 0xA, 0xB));
  }
}

}  // namespace
}  // namespace vel
