#include "vel/Looper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "Event.h"

namespace vel {
namespace {

using test::Event;

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

TEST(LooperTest, HandlesInPostingOrderOnOneThreadOfItsOwn) {
  Looper looper;
  std::vector<int> handled;
  std::vector<std::thread::id> threads;
  Event done;
  const auto post = [&](int i) {
    return Post(looper, [&, i] {
      handled.push_back(i);
      threads.push_back(std::this_thread::get_id());
    });
  };
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(post(i), 0);
  }
  ASSERT_EQ(looper.Start(), 0);
  for (int i = 500; i < 1000; ++i) {
    ASSERT_EQ(post(i), 0);
  }
  Post(looper, [&] { done.Set(); });
  ASSERT_TRUE(done.Wait());
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(handled, expected);
  EXPECT_THAT(threads, testing::Each(threads.front()));
  EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST(LooperTest, KeepsTheOrderOfEachOfSeveralPosters) {
  Looper looper;
  looper.Start();
  std::vector<std::vector<int>> handled(4);
  {
    std::vector<std::jthread> posters;
    for (auto& mine : handled) {
      posters.emplace_back([&looper, &mine] {
        for (int i = 0; i < 1000; ++i) {
          Post(looper, [&mine, i] { mine.push_back(i); });
        }
      });
    }
  }
  Event done;
  Post(looper, [&] { done.Set(); });
  ASSERT_TRUE(done.Wait());
  for (const auto& mine : handled) {
    EXPECT_EQ(mine.size(), 1000U);
    EXPECT_TRUE(std::ranges::is_sorted(mine));
  }
}

TEST(LooperTest, MessageGoesRightAfterItWasHandled) {
  Looper looper;
  std::vector<std::string> events;
  Event done;
  for (const char* name : {"a", "b"}) {
    Post(
        looper, [&events, name] { events.push_back(std::string("handle ") + name); },
        [&events, name] { events.push_back(std::string("free ") + name); });
  }
  Post(looper, [&] { done.Set(); });
  looper.Start();
  ASSERT_TRUE(done.Wait());
  EXPECT_THAT(events, testing::ElementsAre("handle a", "free a", "handle b", "free b"));
}

TEST(LooperTest, HandlerPostsBehindWhatWaits) {
  Looper looper;
  std::vector<int> order;
  Event done;
  Post(looper, [&] {
    order.push_back(1);
    Post(looper, [&] {
      order.push_back(3);
      done.Set();
    });
  });
  Post(looper, [&] { order.push_back(2); });
  looper.Start();
  ASSERT_TRUE(done.Wait());
  EXPECT_THAT(order, testing::ElementsAre(1, 2, 3));
}

TEST(LooperTest, RunsOnce) {
  Looper looper;
  EXPECT_EQ(looper.Start(), 0);
  EXPECT_EQ(looper.Start(), -1);
  EXPECT_EQ(looper.Stop(), 0);
  EXPECT_EQ(looper.Start(), -1);
  EXPECT_EQ(looper.Stop(), 0);
  Looper neverStarted;
  EXPECT_EQ(neverStarted.Stop(), 0);
  EXPECT_EQ(neverStarted.Start(), -1);
}

TEST(LooperTest, RefusedMessageIsDestroyedAtOnce) {
  Looper looper;
  looper.Start();
  EXPECT_EQ(looper.PostMessageAAA(nullptr), -1);
  looper.Stop();
  bool destroyed = false;
  EXPECT_EQ(Post(
                looper, [] { FAIL(); }, [&] { destroyed = true; }),
            -1);
  EXPECT_TRUE(destroyed);
}

TEST(LooperTest, DestructionWithoutStartFreesWhatWaits) {
  int destroyed = 0;
  {
    Looper looper;
    for (int i = 0; i < 3; ++i) {
      Post(
          looper, [] { FAIL(); }, [&] { ++destroyed; });
    }
  }
  EXPECT_EQ(destroyed, 3);
}

TEST(LooperTest, StopWhileIdleEndsTheThread) {
  for (int i = 0; i < 200; ++i) {  // Before the thread runs, while it goes to sleep, while it sleeps.
    Looper looper;
    looper.Start();
    if (i % 2 == 1) {
      Event idle;
      Post(looper, [&] { idle.Set(); });
      ASSERT_TRUE(idle.Wait());
    }
    EXPECT_EQ(looper.Stop(), 0);
  }
}

class LooperStopTest : public testing::TestWithParam<bool> {};

TEST_P(LooperStopTest, WaitsForTheHandlerAndFreesTenThousandUnhandled) {
  const bool postedBeforeStart = GetParam();
  constexpr int kWaiting = 10000;
  Looper looper;
  Event entered;
  Event release;
  std::atomic<bool> finished{false};
  std::atomic<int> handled{0};
  std::atomic<int> destroyed{0};
  const auto postWaiting = [&] {
    for (int i = 0; i < kWaiting; ++i) {
      Post(
          looper, [&] { ++handled; }, [&] { ++destroyed; });
    }
  };
  Post(looper, [&] {
    entered.Set();
    EXPECT_TRUE(release.Wait());
    finished = true;
  });
  if (postedBeforeStart) {
    postWaiting();
  }
  looper.Start();
  ASSERT_TRUE(entered.Wait());
  if (!postedBeforeStart) {
    postWaiting();
  }
  // Stopped by several threads at once: none comes back before the handler has.
  std::vector<std::future<bool>> stops;
  for (int i = 0; i < 4; ++i) {
    stops.push_back(std::async(std::launch::async, [&] { return looper.Stop() == 0 && finished; }));
  }
  AwaitStopping(looper);
  EXPECT_FALSE(finished);
  release.Set();
  for (auto& stop : stops) {
    EXPECT_TRUE(stop.get());
  }
  EXPECT_EQ(handled, 0);
  EXPECT_EQ(destroyed, kWaiting);
}

INSTANTIATE_TEST_SUITE_P(Waiting, LooperStopTest, testing::Bool(), [](const auto& test) {
  return std::string(test.param ? "PostedBeforeStart" : "PostedWhileHandling");
});

TEST(LooperTest, StopOnItsOwnThreadDoesNotWaitAndEndsTheLoop) {
  Looper looper;
  std::atomic<int> destroyed{0};
  Event stopped;
  Post(looper, [&] {
    EXPECT_EQ(looper.Stop(), 0);
    EXPECT_EQ(looper.Stop(), 0);
    stopped.Set();
  });
  for (int i = 0; i < 10; ++i) {
    Post(
        looper, [] { FAIL(); }, [&] { ++destroyed; });
  }
  looper.Start();
  ASSERT_TRUE(stopped.Wait());
  EXPECT_EQ(looper.Stop(), 0);
  EXPECT_EQ(destroyed, 10);
}

TEST(LooperTest, MayBeDestroyedOnItsOwnThread) {
  auto looper = std::make_unique<Looper>();
  std::atomic<int> destroyed{0};
  Event last;
  Looper& reference = *looper;
  Post(reference, [&] { looper.reset(); });
  for (int i = 0; i < 10; ++i) {
    Post(
        reference, [] { FAIL(); },
        [&] {
          if (++destroyed == 10) {
            last.Set();
          }
        });
  }
  reference.Start();
  ASSERT_TRUE(last.Wait());
  EXPECT_EQ(looper, nullptr);
}

TEST(LooperTest, DestructorOfAnUnhandledMessageMayUseTheLooper) {
  Looper looper;
  Event entered;
  Event release;
  int answer = 0;
  Post(looper, [&] {
    entered.Set();
    EXPECT_TRUE(release.Wait());
  });
  looper.Start();
  ASSERT_TRUE(entered.Wait());
  Post(
      looper, [] { FAIL(); }, [&] { answer = Post(looper, [] {}) * 10 + looper.Stop(); });
  auto stop = std::async(std::launch::async, [&] { return looper.Stop(); });
  AwaitStopping(looper);
  release.Set();
  EXPECT_EQ(stop.get(), 0);
  EXPECT_EQ(answer, -10);
}

}  // namespace
}  // namespace vel
