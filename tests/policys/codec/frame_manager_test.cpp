#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "EncodedFrames.h"
#include "H264Stream.h"
#include "JpegWriter.h"
#include "Scene.h"
#include "policys/UVCFrameManager.h"
#include "support/CapturingLog.h"

namespace vel::test {
namespace {

using testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr auto kYuyv = UVC_FRAME_TYPE_YUYV;
constexpr auto kH264 = UVC_FRAME_TYPE_H264;
constexpr auto kMjpeg = UVC_FRAME_TYPE_MJPEG;
constexpr int kWaitMs = 60000;  // Only a failure waits that long.

UVCFramePtr Dequeue(UVCFrameManager& manager, int timeoutMs = kWaitMs) {
  return UVCFramePtr(manager.DequeueFrame(timeoutMs));
}

TEST(FrameManagerTest, PassesTheVeryRecordThroughAndThinsWhatWaits) {
  UVCFrameManager manager(kYuyv, kYuyv);
  ASSERT_EQ(manager.Init(8, 8, kMjpeg, kMjpeg, nullptr), 0);
  std::vector<UVC_FRAME*> records;
  for (std::uint32_t i = 0; i < 5; ++i) {
    records.push_back(MakeFrame(Bytes(16), i).release());
    ASSERT_EQ(manager.EnqueueFrame(records.back()), 0);
  }
  for (const std::size_t kept : {0U, 3U, 4U}) {
    const UVCFramePtr frame = Dequeue(manager, 0);
    EXPECT_EQ(frame.get(), records[kept]);
    EXPECT_EQ(frame->index, kept);
  }
  EXPECT_EQ(Dequeue(manager, 0), nullptr);
}

struct Route {
  _UVC_FRAME_TYPE in;
  _UVC_FRAME_TYPE out;
};

TEST(FrameManagerTest, RoutesByTheTypesOfItsSides) {
  const JpegWriter jpeg{.width = 64, .height = 64};
  for (const Route& route : {Route{kMjpeg, kH264}, {kMjpeg, kYuyv}, {kYuyv, kH264}, {kYuyv, kMjpeg}}) {
    UVCFrameManager manager(kYuyv, kYuyv);
    ASSERT_EQ(manager.Init(64, 64, route.in, route.out, nullptr), 0);
    const Bytes input = route.in == kMjpeg ? jpeg.Write() : jpeg.Yuyv();
    ASSERT_EQ(manager.EnqueueFrame(MakeFrame(input, 77).release()), 0);
    const UVCFramePtr frame = Dequeue(manager);
    ASSERT_NE(frame, nullptr) << route.in << " to " << route.out;
    EXPECT_EQ(frame->index, 77U);
    const Bytes output(frame->data, frame->data + frame->length);
    if (route.out == kH264) {
      EXPECT_THAT(NalTypes(output), testing::IsSupersetOf({7, 8, 5}));
      EXPECT_NE(std::int64_t{frame->timestamp}, 0);
    } else {
      EXPECT_EQ(output, jpeg.Yuyv());
    }
  }
}

TEST(FrameManagerTest, RefusesAndFreesWhatItCannotUse) {
  const CapturingLog log;
  UVCFrameManager manager(kYuyv, kH264);
  EXPECT_EQ(Dequeue(manager), nullptr);  // At once.
  const UVCFramePtr mine = MakeFrame(Bytes(8), 1);
  EXPECT_EQ(manager.EnqueueFrame(mine.get()), -1);
  EXPECT_EQ(log.Count("Error:Frame manager is not ready."), 2U);
  EXPECT_EQ(manager.Init(64, 64, kYuyv, UVC_FRAME_TYPE_H265, nullptr), -1);
  EXPECT_EQ(log.Count("Error:UVC encoder init fail!"), 1U);
  EXPECT_EQ(manager.EnqueueFrame(mine.get()), -1);
  manager.PushFrameToOutQ(MakeFrame(Bytes(8), 1).release());

  ASSERT_EQ(manager.Init(64, 64, kMjpeg, kH264, nullptr), 0);
  EXPECT_EQ(manager.EnqueueFrame(nullptr), -1);
  EXPECT_EQ(log.Count("Error:Frame is NULL."), 1U);
  EXPECT_EQ(manager.EnqueueFrame(MakeFrame({}, 1).release()),
            0);  // Empty, and not a picture: freed.
  EXPECT_EQ(manager.EnqueueFrame(MakeFrame(Bytes(50), 1).release()), 0);
  manager.OnFinishEncode(1, FrameBlocks::Take(4).release(), 0, 0);
  EXPECT_EQ(Dequeue(manager, 0), nullptr);
  ASSERT_EQ(manager.Init(64, 64, kMjpeg, kMjpeg, nullptr),
            0);  // From the start, without what was there.
  EXPECT_EQ(Dequeue(manager, 0), nullptr);
  manager.Release();
  manager.Release();
}

TEST(FrameManagerTest, WaitsAsLongAsAskedAndNoLongerThanRelease) {
  UVCFrameManager manager(kYuyv, kYuyv);
  ASSERT_EQ(manager.Init(64, 64, kYuyv, kYuyv, nullptr), 0);
  const auto begin = Clock::now();
  EXPECT_EQ(Dequeue(manager, 50), nullptr);
  EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(50));

  std::atomic<bool> waiting{false};
  std::thread consumer([&] {
    waiting = true;
    EXPECT_EQ(Dequeue(manager), nullptr);
  });
  while (!waiting) {
    std::this_thread::yield();
  }
  manager.Release();
  consumer.join();
  EXPECT_LT(Clock::now() - begin, std::chrono::milliseconds(kWaitMs / 2));
}

std::string FileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(FrameManagerTest, DumpsBothSidesBackToBack) {
  const CapturingLog log;
  const std::string raw = testing::TempDir() + "frames_raw." + std::to_string(::getpid());
  const std::string encoded = testing::TempDir() + "frames_encoded." + std::to_string(::getpid());
  UVCFrameManager manager(kYuyv, kYuyv);
  ASSERT_EQ(manager.Init(64, 64, kYuyv, kYuyv, nullptr), 0);
  manager.EnableDumpStream(nullptr, UVCFrameManager::kDumpRaw);
  manager.EnableDumpStream("/nowhere/at/all", UVCFrameManager::kDumpRaw);
  manager.EnableDumpStream(raw.c_str(), 2);
  EXPECT_EQ(log.Count("Error:unknow stream type."), 1U);
  manager.EnableDumpStream(raw.c_str(), UVCFrameManager::kDumpRaw);
  manager.EnableDumpStream(encoded.c_str(), UVCFrameManager::kDumpEncoded);
  manager.EnqueueFrame(MakeFrame(Bytes{'a', 'b'}, 1).release());
  manager.EnqueueFrame(MakeFrame(Bytes{'c'}, 2).release());
  HeapBlock unit = FrameBlocks::Take(1);
  unit.get()[0] = 'e';
  manager.OnFinishEncode(3, unit.release(), 1, 0);
  manager.DisableDumpStream();
  manager.EnqueueFrame(MakeFrame(Bytes{'d'}, 4).release());
  EXPECT_EQ(FileText(raw), "abc");
  EXPECT_EQ(FileText(encoded), "e");
  std::remove(raw.c_str());
  std::remove(encoded.c_str());
}

// Producers, coders and consumers at once, with Release and Init at any moment between them.
TEST(FrameManagerTest, StopsFromAnyState) {
  const Scene scene(64, 48);
  const std::vector<Bytes> pictures = {EncodeJpeg(scene.Draw(0), 64, 48), Bytes(100, 0xFF),
                                       EncodeJpeg(scene.Draw(9), 64, 48)};
  const CapturingLog log(OSKELO_LOG_OFF);
  UVCFrameManager manager(kMjpeg, kH264);
  std::atomic<bool> end{false};
  std::atomic<int> out{0};
  std::vector<std::thread> threads;
  for (std::uint32_t producer = 0; producer < 2; ++producer) {
    threads.emplace_back([&] {
      for (std::uint32_t i = 0; !end; ++i) {
        UVCFramePtr frame = MakeFrame(pictures[i % pictures.size()], i);
        if (manager.EnqueueFrame(frame.get()) == 0) {
          static_cast<void>(frame.release());
        }
      }
    });
  }
  threads.emplace_back([&] {
    while (!end) {
      out += Dequeue(manager, 20) != nullptr ? 1 : 0;
    }
  });
  constexpr Route kRoutes[] = {{kMjpeg, kH264}, {kYuyv, kH264}, {kMjpeg, kYuyv}, {kYuyv, kYuyv}};
  for (int round = 0; round < (kSanitized ? 24 : 120); ++round) {
    const Route& route = kRoutes[round % 4];
    ASSERT_EQ(manager.Init(64, 48, route.in, route.out, nullptr), 0);
    const int before = out;
    // Some rounds end at once, others after frames came through.
    const auto deadline = Clock::now() + kDeadline;
    while (round % 3 != 0 && out < before + round % 5 && Clock::now() < deadline) {
      std::this_thread::yield();
    }
    manager.Release();
  }
  end = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(out, 0);
}

}  // namespace
}  // namespace vel::test
