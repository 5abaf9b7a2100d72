#include "vel/Looper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "IdleSpin.h"
#include "support/Collected.h"

namespace vel {
namespace {

using Event = Collected<int>;

// Runs `handle` when it is handled, and `destroyed` when it goes.
class Task final : public Message {
 public:
  explicit Task(
      std::function<void()> handle, std::function<void()> destroyed = [] {})
      : mHandle(std::move(handle)), mDestroyed(std::move(destroyed)) {}
  ~Task() override { mDestroyed(); }
  void HandleMessage() override { mHandle(); }

 private:
  const std::function<void()> mHandle;
  const std::function<void()> mDestroyed;
};

template <class... Functions>
int Post(Looper& looper, Functions... functions) {
  return looper.PostMessageAAA(std::make_unique<Task>(std::move(functions)...));
}

// Returns once another thread's Stop has begun: the looper takes nothing any more.
void AwaitStopping(Looper& looper) {
  while (Post(looper, [] {}) == 0) {
    std::this_thread::yield();
  }
}

TEST(Looper, StopWaitsForTheHandlerAndFreesWhatIsUnhandled) {
  constexpr int kWaiting = 5000;
  auto never = std::make_unique<Looper>();  // Started.
  Looper looper;
  Event entered;
  Event release;
  std::atomic<bool> finished{false};
  std::atomic<int> destroyed{0};
  const auto postWaiting = [&](Looper& to) {
    for (int i = 0; i < kWaiting; ++i) {
      Post(
          to, [] { FAIL(); }, [&] { ++destroyed; });
    }
  };
  Post(looper, [&] {
    entered.Add(1);
    EXPECT_EQ(release.Await(1).size(), 1U);
    finished = true;
  });
  postWaiting(looper);
  looper.Start();
  ASSERT_EQ(entered.Await(1).size(), 1U);
  postWaiting(looper);
  // Stopped by several threads at once: none comes back before the handler has.
  std::vector<std::future<bool>> stops(4);
  for (auto& stop : stops) {
    stop = std::async(std::launch::async, [&] { return looper.Stop() == 0 && finished; });
  }
  AwaitStopping(looper);
  EXPECT_FALSE(finished);
  release.Add(1);
  for (auto& stop : stops) {
    EXPECT_TRUE(stop.get());
  }
  EXPECT_EQ(destroyed, 2 * kWaiting);
  EXPECT_EQ(looper.Start(), -1);
  postWaiting(looper);
  EXPECT_EQ(destroyed, 3 * kWaiting) << "at once";
  postWaiting(*never);
  never.reset();
  EXPECT_EQ(destroyed, 4 * kWaiting);
}

TEST(Looper, MayBeStoppedAndDestroyedOnItsOwnThread) {
  auto looper = std::make_unique<Looper>();
  std::atomic<int> destroyed{0};
  Event last;
  Looper& reference = *looper;
  Post(reference, [&] {
    EXPECT_EQ(looper->Stop(), 0);
    looper.reset();
  });
  for (int i = 0; i < 10; ++i) {
    Post(
        reference, [] { FAIL(); }, [&] { ++destroyed == 10 ? last.Add(1) : void(); });
  }
  reference.Start();
  ASSERT_EQ(last.Await(1).size(), 1U);
  EXPECT_EQ(looper, nullptr);
}

TEST(IdleSpin, LooksLessAndLessOftenInVainAndNeverOnOneProcessor) {
  int looks = 0;
  const auto nothing = [&looks] { return ++looks == 0; };
  IdleSpin spin(2);
  std::vector<int> sleptBetween{0};
  for (int i = 0; i < 400; ++i) {
    EXPECT_FALSE(spin.Await(nothing));
    if (std::exchange(looks, 0) > 0) {
      sleptBetween.push_back(0);
    } else {
      ++sleptBetween.back();
    }
  }
  EXPECT_THAT(sleptBetween, testing::ElementsAre(0, 1, 3, 7, 15, 31, 63, 63, 63, 63, 63, 17));
  while (!spin.Await([] { return true; })) {
  }
  EXPECT_TRUE(spin.Await([] { return true; })) << "what has brought something goes on";
  IdleSpin alone(1);
  EXPECT_FALSE(alone.Await([] { return true; }));
}

}  // namespace
}  // namespace vel
