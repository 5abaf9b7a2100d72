#include "protocol/VelPacket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

namespace {

thread_local bool gGrowthFails = false;

}  // namespace

// The linker sends every realloc of this binary here, and the true ones to __real_.
extern "C" {

void* __real_realloc(void* block, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);

void* __wrap_realloc(void* block, std::size_t size) {
  return gGrowthFails ? nullptr : __real_realloc(block, size);
}

}  // extern "C"

namespace vel {
namespace {

using testing::ElementsAre;

constexpr std::uint32_t kStep = 131072;

std::vector<std::uint8_t> Counting(std::size_t n, std::uint8_t first = 1) {
  std::vector<std::uint8_t> bytes(n);
  std::iota(bytes.begin(), bytes.end(), first);
  return bytes;
}

void SetLength(VelPacket& packet, std::uint32_t length) {
  std::memcpy(packet.MutableWire().data() + VelPacket::kLengthOffset, &length, sizeof length);
}

TEST(VelPacket, AppendLooksAtTheLastSizeAloneAndGrowsInWholeSteps) {
  const struct {
    const char* name;
    std::uint32_t capacity;
    std::uint32_t before;  // Appended before the last one.
    std::uint32_t last;
    int result;
    std::uint32_t grownCapacity;
  } cases[] = {
      {"exact fit", 20, 0, 4, 0, 20},
      {"first too long", 20, 0, 5, -1, 20},
      {"second too long", 20, 2, 5, -1, 20},
      {"largest number", 1024, 0, 0xFFFFFFF0, -1, 1024},
      {"one byte beyond", 24, 8, 1, 0, 24 + kStep},
      {"one step is just enough", 16 + kStep, kStep, kStep, 0, 16 + 2 * kStep},
      {"eight steps", 16 + 8 * kStep, 8 * kStep - 1, 8 * kStep, 0, 16 + 16 * kStep},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    VelPacket packet(test.capacity);
    std::vector<std::uint8_t> expected = Counting(test.before);
    ASSERT_EQ(packet.Append(expected.data(), test.before), 0);
    // What is refused is not looked at either.
    const std::vector<std::uint8_t> bytes = Counting(test.result == 0 ? test.last : 0, 99);
    testing::internal::CaptureStdout();
    EXPECT_EQ(packet.Append(bytes.data(), test.last), test.result);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), test.result == 0 ? "" : "payload size larger than packet size\n");
    expected.insert(expected.end(), bytes.begin(), bytes.end());
    EXPECT_EQ(packet.GetPacketSize(), 16 + expected.size());
    EXPECT_EQ(packet.GetCapacity(), test.grownCapacity);
    EXPECT_TRUE(std::ranges::equal(packet.PayloadBytes(), expected));
  }
}

TEST(VelPacket, FailedGrowthCountsTheBytesAndTouchesNothingOutsideTheBlock) {
  VelPacket packet(24);
  packet.Append("\1\2\3\4", 4);
  gGrowthFails = true;
  const int first = packet.Append("\xAA\xAA\xAA\xAA\xAA\xAA\xAA\xAA", 8);
  const int second = packet.Append("\xAA\xAA", 2);
  gGrowthFails = false;
  EXPECT_EQ(first + second, 0);
  EXPECT_EQ(packet.GetPacketSize(), 30U);
  EXPECT_EQ(packet.GetCapacity(), 24U);
  EXPECT_EQ(packet.Wire().size(), 24U);
  EXPECT_EQ(packet.PayloadBytes().size(), 8U);
  // What was left out reads as zeros once there is room.
  EXPECT_EQ(packet.Append("\xBB\xBB", 2), 0);
  EXPECT_EQ(packet.GetCapacity(), 24 + kStep);
  EXPECT_EQ(packet.PayloadBytes().size(), 16U);
  EXPECT_THAT(packet.PayloadBytes().first(4), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(packet.PayloadBytes().last(8), ElementsAre(0, 0, 0, 0, 0, 0, 0xBB, 0xBB));
}

TEST(VelPacket, MemoryComesWithTheBytesAndIsUsedAgain) {
  const auto packet = VelPacket::TryMake(1024, 200);
  EXPECT_EQ(packet->GetCapacity(), 1024U);
  std::ranges::copy(Counting(32), packet->PayloadRoom().begin() + 8);
  packet->Append("\1\2\3\4\5\6\7\10", 8);
  EXPECT_EQ(packet->AppendInPlace(193), -1);
  EXPECT_EQ(packet->AppendInPlace(2), 0);
  EXPECT_THAT(packet->PayloadBytes(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 1, 2));
  EXPECT_TRUE(packet->Restart(100, 200));
  EXPECT_EQ(packet->AppendInPlace(9), 0);
  EXPECT_THAT(packet->PayloadBytes(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 1)) << "what was there stays";
  EXPECT_FALSE(packet->Restart(100, 201));
  EXPECT_EQ(packet->Append(Counting(84).data(), 84), 0);  // More than its room, then more than its capacity.
  EXPECT_EQ(packet->GetCapacity(), 100 + kStep);
  EXPECT_TRUE(std::ranges::equal(packet->PayloadBytes().last(84), Counting(84)));
  const auto unbacked = VelPacket::TryMake(1024, 0);
  std::uint64_t value = 1;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(unbacked->ReadU64(&value), 0);
  }
  EXPECT_EQ(value, 0U) << "nobody has written it";
}

TEST(VelPacket, LengthFieldNeverLeadsOutOfTheBlock) {
  const struct {
    std::uint32_t length;
    std::size_t wire;
    std::size_t payload;
  } cases[] = {{0, 0, 0}, {15, 15, 0}, {16, 16, 0}, {20, 20, 4}, {24, 24, 8}, {25, 24, 8}, {0xFFFFFFF0, 24, 8}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.length);
    VelPacket packet(24);
    EXPECT_EQ(packet.InitHeader(1, 2, 3), 0);
    packet.Append(Counting(8).data(), 8);
    EXPECT_EQ(packet.GetPayload(), packet.Wire().data() + 16);
    SetLength(packet, test.length);
    EXPECT_EQ(packet.GetPacketSize(), test.length);
    EXPECT_EQ(packet.Wire().size(), test.wire);
    EXPECT_EQ(packet.PayloadBytes().size(), test.payload);
  }
  VelPacket full(64);
  SetLength(full, 0xFFFFFFF0);
  EXPECT_EQ(full.Append("0123456789abcdef", 16), -1) << "counted past its field";
  VelPacket unwritten(16 + 8);  // Read by its capacity.
  std::uint64_t value = 0;
  EXPECT_EQ(unwritten.ReadU64(&value), 0);
  EXPECT_EQ(unwritten.ReadU64(&value), -1);
}

}  // namespace
}  // namespace vel
