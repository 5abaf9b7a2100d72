#include "vel/Looper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
  std::vector<std::vector<int>> others(3);  // Of each of several posters.
  {
    std::vector<std::jthread> posters;
    for (auto& mine : others) {
      posters.emplace_back([&looper, &mine] {
        for (int i = 0; i < 500; ++i) {
          Post(looper, [&mine, i] { mine.push_back(i); });
        }
      });
    }
  }
  Post(looper, [&] { done.Set(); });
  ASSERT_TRUE(done.Wait());
  std::vector<int> expected(1000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(handled, expected);
  expected.resize(500);
  EXPECT_THAT(others, testing::Each(expected));
  EXPECT_THAT(threads, testing::Each(threads.front()));
  EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST(LooperTest, MessageGoesRightAfterItWasHandledAndAHandlerPostsBehindWhatWaits) {
  Looper looper;
  std::vector<std::string> events;
  Event done;
  const auto log = [&events](const char* event) { return [&events, event] { events.emplace_back(event); }; };
  Post(
      looper,
      [&] {
        events.emplace_back("handle a");
        Post(
            looper, [&] { done.Set(); }, log("free c"));
      },
      log("free a"));
  Post(looper, log("handle b"), log("free b"));
  looper.Start();
  ASSERT_TRUE(done.Wait());
  looper.Stop();
  EXPECT_THAT(events, testing::ElementsAre("handle a", "free a", "handle b", "free b", "free c"));
}

TEST(LooperTest, RunsOnce) {
  for (const int start : {0, -1}) {
    Looper looper;
    EXPECT_EQ(start == 0 ? looper.Start() : looper.Stop(), 0);
    EXPECT_EQ(looper.Start(), -1);
    EXPECT_EQ(looper.Stop(), 0);
    EXPECT_EQ(looper.Start(), -1);
  }
}

TEST(LooperTest, WhatIsNotHandledIsDestroyed) {
  int destroyed = 0;
  const auto post = [&](Looper& looper) {
    return Post(
        looper, [] { FAIL(); }, [&] { ++destroyed; });
  };
  {
    Looper looper;
    post(looper);
    post(looper);
  }
  EXPECT_EQ(destroyed, 2) << "never started";
  Looper stopped;
  stopped.Start();
  EXPECT_EQ(stopped.PostMessageAAA(nullptr), -1);
  stopped.Stop();
  EXPECT_EQ(post(stopped), -1);
  EXPECT_EQ(destroyed, 3) << "at once";
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

TEST(LooperTest, StopWaitsForTheHandlerAndFreesWhatIsUnhandled) {
  constexpr int kWaiting = 5000;
  Looper looper;
  Event entered;
  Event release;
  std::atomic<bool> finished{false};
  std::atomic<int> destroyed{0};
  const auto postWaiting = [&] {
    for (int i = 0; i < kWaiting; ++i) {
      Post(
          looper, [] { FAIL(); }, [&] { ++destroyed; });
    }
  };
  Post(looper, [&] {
    entered.Set();
    EXPECT_TRUE(release.Wait());
    finished = true;
  });
  postWaiting();
  looper.Start();
  ASSERT_TRUE(entered.Wait());
  postWaiting();
  int answer = 0;  // The destructor of one of them uses the looper.
  Post(
      looper, [] { FAIL(); }, [&] { answer = Post(looper, [] {}) * 10 + looper.Stop(); });
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
  EXPECT_EQ(destroyed, 2 * kWaiting);
  EXPECT_EQ(answer, -10);
}

TEST(LooperTest, MayBeStoppedAndDestroyedOnItsOwnThread) {
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

}  // namespace
}  // namespace vel
