#include "vel/VelTracer.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

namespace vel {
namespace {

TEST(VelTracerTest, SpanIdsAreUniqueAcrossThreadsAndNeverZero) {
  constexpr std::size_t kIds = 10000;
  std::vector<std::vector<std::uint64_t>> taken(4);
  {
    std::vector<std::jthread> threads;
    for (auto& mine : taken) {
      threads.emplace_back([&mine] {
        for (std::size_t i = 0; i < kIds; ++i) {
          mine.push_back(VelTracer::GetInstance().NewSpanId());
        }
      });
    }
  }
  std::set<std::uint64_t> all;
  for (const auto& mine : taken) {
    all.insert(mine.begin(), mine.end());
  }
  EXPECT_EQ(all.size(), taken.size() * kIds);
  EXPECT_FALSE(all.contains(0));
}

}  // namespace
}  // namespace vel
