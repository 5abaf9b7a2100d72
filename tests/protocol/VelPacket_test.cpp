#include "protocol/VelPacket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>
#include <ostream>
#include <string>
#include <vector>

#include "AllocationSeam.h"

namespace vel {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

using Header = std::array<std::uint8_t, VelPacket::kHeaderSize>;

std::vector<std::uint8_t> Counting(std::size_t n, std::uint8_t first = 1) {
  std::vector<std::uint8_t> bytes(n);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

void SetLength(VelPacket& packet, std::uint32_t length) {
  std::memcpy(packet.MutableWire().data() + VelPacket::kLengthOffset, &length, sizeof length);
}

TEST(VelPacketTest, ConstructionGivesAnEmptyPacketWithRoomForItsHeader) {
  for (const std::uint32_t capacity : {0U, 1U, 15U, 16U, 17U, 1024U}) {
    SCOPED_TRACE(capacity);
    const VelPacket packet(capacity);
    EXPECT_EQ(packet.GetCapacity(), std::max(capacity, 16U));
    EXPECT_EQ(packet.GetPacketSize(), 16U);
    EXPECT_EQ(packet.GetPayloadSize(), 0U);
    EXPECT_THAT(packet.Wire(), ElementsAre(0x27, 0, 0, 0, 0, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(packet.PayloadBytes(), IsEmpty());
    EXPECT_EQ(packet.GetPayload(), packet.Wire().data() + 16);
  }
}

TEST(VelPacketTest, StatusReplyIsRightToTheByte) {
  VelPacket packet(1024);
  ASSERT_EQ(packet.InitHeader(7, 0x1017, 3), 0);
  const std::int32_t result = -5;
  ASSERT_EQ(packet.Append(&result, sizeof result), 0);
  EXPECT_THAT(packet.Wire(), ElementsAre(0x27, 7, 0x17, 0x10, 3, 0, 0, 0, 20, 0, 0, 0, 0, 0, 0, 0,  //
                                         0xFB, 0xFF, 0xFF, 0xFF));
}

TEST(VelPacketTest, InitHeaderChangesTheFieldsAndKeepsLengthAndPayload) {
  VelPacket packet(32);
  packet.Append("abcd", 4);
  ASSERT_EQ(packet.InitHeader(0xFE, 0x102D, 0x89ABCDEF), 0);
  EXPECT_EQ(packet.GetReqId(), 0xFE);
  EXPECT_EQ(packet.GetCommand(), 0x102D);
  EXPECT_EQ(packet.GetDevId(), 0x89ABCDEFU);
  EXPECT_EQ(packet.GetPacketSize(), 20U);
  EXPECT_THAT(packet.PayloadBytes(), ElementsAre('a', 'b', 'c', 'd'));
}

TEST(VelPacketTest, InitHeaderTurnsAReceivedHeaderIntoOneOfThisHost) {
  const Header foreign = {0x99, 1, 0x10, 0x24, 0, 0, 0, 9, 0, 0, 0, 16, 1, 0, 0, 0};
  const auto packet = VelPacket::ForReceived(foreign, 16);
  packet->InitHeader(2, 0x1025, 4);
  EXPECT_THAT(packet->Wire(), ElementsAre(0x27, 2, 0x25, 0x10, 4, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0));
}

struct AppendCase {
  const char* name;
  std::uint32_t capacity;
  std::vector<std::uint32_t> sizes;  // Of the appends before the last one.
  std::uint32_t last;
  int result;
  std::uint32_t length;
  std::uint32_t grownCapacity;

  friend void PrintTo(const AppendCase& test, std::ostream* out) { *out << test.name; }
};

class VelPacketAppendTest : public testing::TestWithParam<AppendCase> {};

TEST_P(VelPacketAppendTest, LooksAtTheLastSizeAloneAndGrowsInWholeSteps) {
  const AppendCase& test = GetParam();
  VelPacket packet(test.capacity);
  std::vector<std::uint8_t> expected;
  std::uint8_t first = 1;
  for (const std::uint32_t size : test.sizes) {
    const std::vector<std::uint8_t> bytes = Counting(size, first++);
    ASSERT_EQ(packet.Append(bytes.data(), size), 0);
    expected.insert(expected.end(), bytes.begin(), bytes.end());
  }
  // What is refused is not looked at either.
  const std::vector<std::uint8_t> bytes = Counting(test.result == 0 ? test.last : 0, 99);
  testing::internal::CaptureStdout();
  EXPECT_EQ(packet.Append(bytes.data(), test.last), test.result);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), test.result == 0 ? "" : "payload size larger than packet size\n");
  if (test.result == 0) {
    expected.insert(expected.end(), bytes.begin(), bytes.end());
  }
  EXPECT_EQ(packet.GetPacketSize(), test.length);
  EXPECT_EQ(packet.GetCapacity(), test.grownCapacity);
  EXPECT_TRUE(std::ranges::equal(packet.PayloadBytes(), expected));
}

constexpr std::uint32_t kStep = 131072;

INSTANTIATE_TEST_SUITE_P(
    Sizes, VelPacketAppendTest,
    testing::Values(
        AppendCase{"NothingIntoAHeader", 0, {}, 0, 0, 16, 16}, AppendCase{"NothingAtTheEnd", 20, {4}, 0, 0, 20, 20},
        AppendCase{"OneIntoAHeader", 0, {}, 1, -1, 16, 16}, AppendCase{"ExactFit", 20, {}, 4, 0, 20, 20},
        AppendCase{"FirstTooLong", 20, {}, 5, -1, 16, 20}, AppendCase{"SecondTooLong", 20, {2}, 5, -1, 18, 20},
        AppendCase{"LargestNumber", 1024, {}, 0xFFFFFFF0, -1, 16, 1024},
        AppendCase{"TwoFillTheBlock", 24, {4}, 4, 0, 24, 24},
        AppendCase{"OneByteBeyond", 24, {8}, 1, 0, 25, 24 + kStep},
        AppendCase{"OneStepIsJustEnough", 16 + kStep, {kStep}, kStep, 0, 16 + 2 * kStep, 16 + 2 * kStep},
        AppendCase{"TwoSteps", 16 + 200000, {200000}, 200000, 0, 400016, 200016 + 2 * kStep},
        AppendCase{"EightSteps", 16 + 8 * kStep, {8 * kStep - 1}, 8 * kStep, 0, 15 + 16 * kStep, 16 + 16 * kStep},
        AppendCase{"GrownRoomCounts", 24, {8, 8}, kStep, 0, 32 + kStep, 24 + 2 * kStep}),
    [](const auto& test) { return test.param.name; });

TEST(VelPacketTest, FailedGrowthCountsTheBytesAndTouchesNothingOutsideTheBlock) {
  VelPacket packet(24);
  const std::vector<std::uint8_t> eight = Counting(8);
  packet.Append(eight.data(), 4);
  {
    const test::FailingRealloc failing;
    EXPECT_EQ(packet.Append(eight.data(), 8), 0);
    EXPECT_EQ(packet.Append(eight.data(), 8), 0);
  }
  EXPECT_EQ(packet.GetPacketSize(), 36U);
  EXPECT_EQ(packet.GetCapacity(), 24U);
  EXPECT_EQ(packet.Wire().size(), 24U);
  EXPECT_EQ(packet.MutableWire().size(), 24U);
  EXPECT_EQ(packet.PayloadBytes().size(), 8U);
  EXPECT_THAT(packet.PayloadBytes().first(4), ElementsAre(1, 2, 3, 4));
  std::uint64_t value = 0;
  EXPECT_EQ(packet.ReadU64(&value), 0);
  EXPECT_EQ(packet.ReadU64(&value), -1);
}

TEST(VelPacketTest, WhatFailedGrowthLeftOutReadsAsZerosOnceThereIsRoom) {
  VelPacket packet(24);
  packet.Append("\1\2\3\4\5\6\7\x8", 8);
  {
    const test::FailingRealloc failing;
    packet.Append("\xAA\xAA\xAA\xAA", 4);
  }
  EXPECT_EQ(packet.Append("\xBB\xBB", 2), 0);
  EXPECT_EQ(packet.GetCapacity(), 24 + kStep);
  EXPECT_THAT(packet.PayloadBytes(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0xBB, 0xBB));
}

TEST(VelPacketTest, LengthIsNeverCountedPastItsField) {
  VelPacket packet(64);
  SetLength(packet, 0xFFFFFFF0);
  EXPECT_EQ(packet.Append("0123456789abcdef", 16), -1);
  EXPECT_EQ(packet.GetPacketSize(), 0xFFFFFFF0U);
  EXPECT_EQ(packet.GetCapacity(), 64U);
}

TEST(VelPacketTest, PacketWithoutABufferAnswersSoftly) {
  const Header header = {0x27, 9, 0x22, 0x10, 1, 2, 3, 4, 64};
  std::vector<std::unique_ptr<VelPacket>> packets;
  {
    const test::FailingMalloc failing;
    packets.push_back(std::make_unique<VelPacket>(64));
    packets.push_back(VelPacket::ForReceived(header, 64));
  }
  for (const auto& packet : packets) {
    EXPECT_EQ(packet->InitHeader(1, 2, 3), -1);
    EXPECT_EQ(packet->Append("x", 1), -1);
    EXPECT_EQ(packet->GetCommand(), 0);
    EXPECT_EQ(packet->GetDevId(), 0U);
    EXPECT_EQ(packet->GetReqId(), 0);
    EXPECT_EQ(packet->GetPacketSize(), 0U);
    EXPECT_EQ(packet->GetPayloadSize(), 0U);
    EXPECT_EQ(packet->GetCapacity(), 0U);
    EXPECT_EQ(packet->GetPayload(), nullptr);
    std::uint32_t value = 5;
    EXPECT_EQ(packet->ReadU32(&value), -1);
    EXPECT_EQ(value, 5U);
    EXPECT_TRUE(packet->PayloadBytes().empty());
    EXPECT_TRUE(packet->Wire().empty());
    EXPECT_TRUE(packet->MutableWire().empty());
  }
}

TEST(VelPacketTest, ReadsAreSwappedForAWriterOfTheOtherByteOrder) {
  struct {
    std::uint8_t byteOrder;
    std::uint32_t first;
    std::uint64_t second;
  } const cases[] = {{0, 0x04030201, 0x0C0B0A0908070605}, {1, 0x01020304, 0x05060708090A0B0C}};
  for (const auto& test : cases) {
    SCOPED_TRACE(int{test.byteOrder});
    const Header header = {0x27, 0, 4, 0, 0, 0, 0, 0, 28, 0, 0, 0, test.byteOrder, 0, 0, 0};
    const auto packet = VelPacket::ForReceived(header, 28);
    std::ranges::copy(Counting(12), packet->MutableWire().begin() + 16);
    std::uint32_t first = 0;
    std::uint64_t second = 0;
    EXPECT_EQ(packet->ReadU32(&first), 0);
    EXPECT_EQ(packet->GetPayloadSize(), 8U);
    EXPECT_EQ(packet->GetPayload(), packet->Wire().data() + 20);
    EXPECT_THAT(packet->PayloadBytes(), ElementsAre(5, 6, 7, 8, 9, 10, 11, 12));
    EXPECT_EQ(packet->ReadU64(&second), 0);
    EXPECT_EQ(first, test.first);
    EXPECT_EQ(second, test.second);
    EXPECT_EQ(packet->GetPayloadSize(), 0U);
    EXPECT_THAT(packet->PayloadBytes(), IsEmpty());
  }
}

TEST(VelPacketTest, RefusedReadChangesNeitherCursorNorValue) {
  VelPacket packet(16 + 11);
  packet.Append(Counting(11).data(), 11);
  std::uint32_t small = 0;
  std::uint64_t large = 77;
  ASSERT_EQ(packet.ReadU32(&small), 0);
  EXPECT_EQ(packet.ReadU64(&large), -1);
  EXPECT_EQ(large, 77U);
  ASSERT_EQ(packet.ReadU32(&small), 0);
  EXPECT_EQ(small, 0x08070605U);
  EXPECT_EQ(packet.ReadU32(&small), -1);
  EXPECT_EQ(small, 0x08070605U);
  EXPECT_THAT(packet.PayloadBytes(), ElementsAre(9, 10, 11));
}

TEST(VelPacketTest, ReadsAreBoundedByTheCapacityAndNotByTheLength) {
  VelPacket packet(16 + 8);
  std::uint32_t value = 0;
  EXPECT_EQ(packet.ReadU32(&value), 0);
  EXPECT_EQ(packet.ReadU32(&value), 0);
  EXPECT_EQ(packet.ReadU32(&value), -1);
  EXPECT_THAT(packet.PayloadBytes(), IsEmpty());
}

TEST(VelPacketTest, LengthFieldNeverLeadsOutOfTheBlock) {
  struct {
    std::uint32_t length;
    std::size_t wire;
    std::size_t payload;
  } const cases[] = {{0, 0, 0}, {15, 15, 0}, {16, 16, 0}, {20, 20, 4}, {24, 24, 8}, {25, 24, 8}, {0xFFFFFFFF, 24, 8}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.length);
    VelPacket packet(24);
    packet.Append(Counting(8).data(), 8);
    SetLength(packet, test.length);
    EXPECT_EQ(packet.GetPacketSize(), test.length);
    EXPECT_EQ(packet.Wire().size(), test.wire);
    EXPECT_EQ(packet.PayloadBytes().size(), test.payload);
  }
}

TEST(VelPacketTest, ReceivedPacketKeepsItsHeaderButForTheLength) {
  const Header header = {0x27, 9, 0x22, 0x10, 1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 1, 5, 6, 7};
  for (const std::uint32_t total : {0U, 16U, 21U}) {
    SCOPED_TRACE(total);
    const auto packet = VelPacket::ForReceived(header, total);
    Header expected = header;
    std::fill(expected.begin() + 8, expected.begin() + 12, std::uint8_t{0});
    expected[8] = static_cast<std::uint8_t>(std::max(total, 16U));
    EXPECT_EQ(packet->GetPacketSize(), std::max(total, 16U));
    EXPECT_EQ(packet->GetCapacity(), std::max(total, 16U));
    EXPECT_EQ(packet->MutableWire().size(), std::max(total, 16U));
    EXPECT_THAT(packet->Wire().first(16), ElementsAreArray(expected));
    EXPECT_EQ(packet->GetReqId(), 9);
    EXPECT_EQ(packet->GetCommand(), 0x1022);
    EXPECT_EQ(packet->GetDevId(), 0x04030201U);
  }
}

}  // namespace
}  // namespace vel
