#include "vel/Processors.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <thread>

namespace vel {
namespace {

TEST(UsableProcessors, AreThoseThatTheThreadIsBoundTo) {
  EXPECT_LE(UsableProcessors(), std::thread::hardware_concurrency());
  std::thread([] {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    EXPECT_EQ(UsableProcessors(), 1U);
  }).join();
}

}  // namespace
}  // namespace vel
