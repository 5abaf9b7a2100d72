#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "policys/FrameBlocks.h"
#include "policys/UVCFrame.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using testing::ElementsAre;

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

// Worked out by hand: N / k <= C for the first k below N, interval k - 1, N / (interval + 1)
// groups.
TEST(FrameListTest, ThinningKeepsTheFirstOfEachGroup) {
  const std::vector<Thinning> table = {
      {0, 1, -1, {}},          {1, 1, -1, {0}},  // No group: 1 / 2.
      {2, 1, -1, {0}},                           // 2 / 1 is too much, and there is no other k: interval 1.
      {3, 1, 1, {0, 2}},                         // 3 / 2 = 1.
      {4, 1, 2, {0, 3}},                         // 4 / 3 = 1; one group, one left over.
      {5, 1, 2, {0, 3, 4}},                      // 5 / 3 = 1.
      {7, 1, 3, {0, 4, 5, 6}},                   // 7 / 4 = 1.
      {8, 2, 2, {0, 3, 6, 7}},                   // 8 / 3 = 2; two groups of three.
      {9, 3, 2, {0, 3, 6}},                      // 9 / 3 = 3.
      {4, 4, 0, {0, 1, 2, 3}},                   // Fits as it is.
      {3, 0, -1, {0, 2}},                        // Nothing reaches 0: interval 1, one group.
      {6, 2, 2, {0, 3}},                         // 6 / 3 = 2.
  };
  for (const Thinning& row : table) {
    const CapturingLog log;
    UVCFrameList list = ListOf(row.frames);
    EXPECT_EQ(FrameListResize(row.cacheSize, list), 0);
    EXPECT_EQ(Indices(list), row.left) << row.frames << " frames, cache size " << row.cacheSize;
    const std::string line = "Debug:[UVC tuning] Output frame list size:" + std::to_string(row.frames) +
                             ", cache size: " + std::to_string(row.cacheSize) +
                             ", interval: " + std::to_string(row.interval);
    EXPECT_EQ(log.Count(line), row.interval < 0 ? 0U : 1U) << line;
    EXPECT_EQ(log.Count("UVC: output queue size after resize: " + std::to_string(row.left.size()) + " "),
              row.frames == 0 ? 0U : 1U);
    EXPECT_EQ(FrameListFlush(list), 0);
    EXPECT_TRUE(list.empty());
  }
}

TEST(FrameBlocksTest, BlocksComeBackWhileThereIsAUser) {
  constexpr std::size_t kBytes = FrameBlocks::kSmallest;
  const FrameBlocks::User user;
  HeapBlock block = FrameBlocks::Take(kBytes + 1);
  const std::uint8_t* const address = block.get();
  FrameBlocks::Give(std::move(block), kBytes + 1);
  const HeapBlock larger = FrameBlocks::Take(kBytes + 2);
  EXPECT_NE(larger.get(), address);  // It has no byte more than it was given with.
  const HeapBlock again = FrameBlocks::Take(kBytes);
  EXPECT_EQ(again.get(), address);
}

TEST(FrameBlocksTest, KeepsNoMoreThanItsBound) {
  const FrameBlocks::User user;
  std::vector<std::uint8_t*> given;
  for (std::size_t i = 0; i < FrameBlocks::kBlocksForUser + 3; ++i) {
    HeapBlock block(static_cast<std::uint8_t*>(std::malloc(FrameBlocks::kSmallest)));
    given.push_back(block.get());
    FrameBlocks::Give(std::move(block), FrameBlocks::kSmallest);
  }
  std::vector<HeapBlock> taken;
  for (std::size_t i = 0; i < FrameBlocks::kBlocksForUser; ++i) {
    taken.push_back(FrameBlocks::Take(FrameBlocks::kSmallest));
    EXPECT_EQ(taken.back().get(), given[given.size() - 1 - i]);  // The oldest ones went.
  }
}

}  // namespace
}  // namespace vel
