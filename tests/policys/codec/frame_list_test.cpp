#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "policys/FrameBlocks.h"
#include "policys/UVCFrame.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

UVCFrameList ListOf(std::size_t count) {
  UVCFrameList list;
  for (std::size_t i = 0; i < count; ++i) {
    list.push_back(MakeUvcFrame(FrameBlocks::Take(1), 1, static_cast<std::uint32_t>(i)));
  }
  return list;
}

std::vector<int> Indices(const UVCFrameList& list) {
  std::vector<int> indices;
  for (const UVCFramePtr& frame : list) {
    indices.push_back(static_cast<int>(frame->index));
  }
  return indices;
}

struct Thinning {
  std::size_t frames;
  std::uint32_t cacheSize;
  int interval;  // As logged; -1: no line.
  std::vector<int> left;
};

// Worked out by hand: N / k <= C for the first k below N, interval k - 1, N / (interval + 1) groups.
TEST(FrameListTest, ThinningKeepsTheFirstOfEachGroup) {
  const std::vector<Thinning> table = {
      {0, 1, -1, {}},          {1, 1, -1, {0}},  // No group: 1 / 2.
      {2, 1, -1, {0}},                           // 2 / 1 is too much, and there is no other k: interval 1.
      {4, 1, 2, {0, 3}},                         // 4 / 3 = 1; one group, one left over.
      {7, 1, 3, {0, 4, 5, 6}},                   // 7 / 4 = 1.
      {8, 2, 2, {0, 3, 6, 7}},                   // 8 / 3 = 2; two groups of three.
      {4, 4, 0, {0, 1, 2, 3}},                   // Fits as it is.
      {3, 0, -1, {0, 2}},                        // Nothing reaches 0: interval 1, one group.
  };
  for (const Thinning& row : table) {
    const CapturingLog log;
    UVCFrameList list = ListOf(row.frames);
    EXPECT_EQ(FrameListResize(row.cacheSize, list), 0);
    EXPECT_EQ(Indices(list), row.left) << row.frames << " frames, cache size " << row.cacheSize;
    EXPECT_EQ(log.Count("interval: " + std::to_string(row.interval)), row.interval < 0 ? 0U : 1U);
    EXPECT_EQ(FrameListFlush(list), 0);
    EXPECT_TRUE(list.empty());
  }
}

TEST(FrameBlocksTest, ComeBackWhileThereIsAUserUpToABound) {
  constexpr std::size_t kBytes = FrameBlocks::kSmallest;
  const FrameBlocks::User user;
  std::vector<std::uint8_t*> given;
  for (std::size_t i = 0; i < FrameBlocks::kBlocksForUser + 3; ++i) {
    HeapBlock block(static_cast<std::uint8_t*>(std::malloc(kBytes)));
    given.push_back(block.get());
    FrameBlocks::Give(std::move(block), kBytes);
  }
  const HeapBlock larger = FrameBlocks::Take(kBytes + 1);  // None has a byte more than it was given with.
  EXPECT_EQ(std::count(given.end() - FrameBlocks::kBlocksForUser, given.end(), larger.get()), 0);
  std::vector<HeapBlock> taken;
  for (std::size_t i = 0; i < FrameBlocks::kBlocksForUser; ++i) {
    taken.push_back(FrameBlocks::Take(kBytes));
    EXPECT_EQ(taken.back().get(), given[given.size() - 1 - i]);  // The oldest ones went.
  }
}

}  // namespace
}  // namespace vel
