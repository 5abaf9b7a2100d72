#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "policys/JpegWriter.h"
#include "policys/UVCDecoder.h"
#include "policys/UVCEncoder.h"
#include "policys/UVCFrameManager.h"
#include "support/CapturingLog.h"
#include "support/Heap.h"
#include "support/Limits.h"
#include "support/Scene.h"

namespace vel::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kYuyv = UVC_FRAME_TYPE_YUYV;
constexpr auto kH264 = UVC_FRAME_TYPE_H264;
constexpr auto kMjpeg = UVC_FRAME_TYPE_MJPEG;
constexpr int kWaitMs = 600000;  // Longer than a test may take: whoever is not woken fails it.

UVCFramePtr Dequeue(UVCFrameManager& manager, int timeoutMs = kWaitMs) {
  return UVCFramePtr(manager.DequeueFrame(timeoutMs));
}

TEST(FrameManager, PassesTheVeryRecordThroughAndThinsWhatWaits) {
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
  const Bytes decoded(16, 5);
  manager.OnFinishDecode(const_cast<std::uint8_t*>(decoded.data()), 16, 8);  // Of a client's decoder: a copy.
  const UVCFramePtr frame = Dequeue(manager, 0);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(Bytes(frame->data, frame->data + frame->length), decoded);
  EXPECT_EQ(frame->index, 8U);
  EXPECT_EQ(manager.PushFrameToOutQ(nullptr), 0);
}

// Worked out by hand: N / k <= C for the first k below N, interval k - 1, N / (interval + 1) groups.
TEST(FrameList, ThinningKeepsTheFirstOfEachGroup) {
  struct Thinning {
    std::uint32_t frames;
    std::uint32_t cacheSize;
    std::vector<std::uint32_t> left;
  };
  const std::vector<Thinning> table = {
      {0, 1, {}},           {1, 1, {0}},  // No group: 1 / 2.
      {2, 1, {0}},                        // 2 / 1 is too much, and there is no other k: interval 1.
      {4, 1, {0, 3}},                     // 4 / 3 = 1; one group, one left over.
      {7, 1, {0, 4, 5, 6}},               // 7 / 4 = 1.
      {8, 2, {0, 3, 6, 7}},               // 8 / 3 = 2; two groups of three.
      {4, 4, {0, 1, 2, 3}},               // Fits as it is.
      {3, 0, {0, 2}},                     // Nothing reaches 0: interval 1, one group.
  };
  constexpr std::size_t kBytes = 60000;  // What is lost of it is seen among the rest.
  const std::size_t before = test::HeapBytes();
  for (const Thinning& row : table) {
    UVCFrameList list;
    for (std::uint32_t i = 0; i < row.frames; ++i) {
      list.push_back(MakeFrame(Bytes(kBytes), i));
    }
    EXPECT_EQ(FrameListResize(row.cacheSize, list), 0);
    std::vector<std::uint32_t> left;
    std::ranges::transform(list, std::back_inserter(left), [](const UVCFramePtr& frame) { return frame->index; });
    EXPECT_EQ(left, row.left) << row.frames << " frames, cache size " << row.cacheSize;
    EXPECT_EQ(UVCFrameManager::FrameListFlush(list), 0);
    EXPECT_TRUE(list.empty());
  }
  EXPECT_LT(test::HeapBytes(), before + kBytes);
}

struct Route {
  _UVC_FRAME_TYPE in;
  _UVC_FRAME_TYPE out;
};

TEST(FrameManager, RoutesByTheTypesOfItsSides) {
  const JpegWriter jpeg{.width = 64, .height = 64};
  for (const Route& route : {Route{kMjpeg, kH264}, {kMjpeg, kYuyv}, {kYuyv, kH264}, {kYuyv, kMjpeg}}) {
    SCOPED_TRACE(testing::Message() << route.in << " to " << route.out);
    UVCFrameManager manager(kYuyv, kYuyv);
    ASSERT_EQ(manager.Init(64, 64, route.in, route.out, nullptr), 0);
    const Bytes input = route.in == kMjpeg ? jpeg.Write() : jpeg.Yuyv();
    ASSERT_EQ(manager.EnqueueFrame(MakeFrame(input, 77).release()), 0);
    const UVCFramePtr frame = Dequeue(manager);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->index, 77U);
    const Bytes output(frame->data, frame->data + frame->length);
    EXPECT_TRUE(route.out == kH264 ? (output.at(4) & 0x1F) == 7 : output == jpeg.Yuyv());
  }
}

// Planes that the encoder takes as they are give what the way through YUYV gives, bit for bit.
TEST(FrameManager, EncodesMjpegAsIfThroughYuyv) {
  constexpr int kWidth = 96;
  constexpr int kHeight = 64;
  std::vector<Bytes> jpegs{EncodeJpeg(Scene(kWidth, kHeight).Draw(0), kWidth, kHeight)};  // 4:2:2, no two rows alike.
  for (const std::array<int, 2> sampling : {std::array{2, 2}, {1, 1}}) {
    jpegs.push_back(JpegWriter{.width = kWidth, .height = kHeight, .lumaSampling = sampling}.Write());
  }
  UVCFrameManager manager(kYuyv, kYuyv);
  UVCDecoder decoder;
  UVCEncoder encoder;
  ASSERT_EQ(manager.Init(kWidth, kHeight, kMjpeg, kH264, nullptr), 0);
  ASSERT_EQ(decoder.Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, kWidth, kHeight, nullptr), 0);
  ASSERT_EQ(encoder.Init(UVC_ENCODER_TYPE_H264, kWidth, kHeight, nullptr, nullptr), 0);
  for (const Bytes& jpeg : jpegs) {
    ASSERT_EQ(manager.EnqueueFrame(MakeFrame(jpeg, 0).release()), 0);
    const UVCFramePtr frame = Dequeue(manager);
    ASSERT_NE(frame, nullptr);
    Bytes yuyv(std::size_t{kWidth} * kHeight * 2);
    Bytes unit(yuyv.size());
    std::uint32_t size = 0;
    ASSERT_EQ(decoder.Decode(jpeg.data(), static_cast<std::uint32_t>(jpeg.size()), yuyv.data(), &size), 1);
    ASSERT_EQ(encoder.Encode(yuyv.data(), size, unit.data(), &size), 0);
    unit.resize(size);
    EXPECT_EQ(Bytes(frame->data, frame->data + frame->length), unit) << "picture " << &jpeg - jpegs.data();
  }
}

TEST(FrameManager, TakesAPictureOfAnotherSizeThanNegotiatedForAShortFrame) {
  UVCFrameManager manager(kYuyv, kYuyv);
  ASSERT_EQ(manager.Init(640, 480, kMjpeg, kH264, nullptr), 0);
  ASSERT_EQ(manager.EnqueueFrame(MakeFrame(JpegWriter{}.Write(), 5).release()), 0);
  const UVCFramePtr frame = Dequeue(manager);
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->index, 5U);
}

TEST(FrameManager, RefusesAndFreesWhatItCannotUse) {
  UVCFrameManager manager(kYuyv, kH264);
  EXPECT_EQ(Dequeue(manager), nullptr);  // At once.
  const UVCFramePtr mine = MakeFrame(Bytes(8), 1);
  EXPECT_EQ(manager.EnqueueFrame(mine.get()), -1);
  EXPECT_EQ(manager.Init(64, 64, kYuyv, UVC_FRAME_TYPE_H265, nullptr), -1);
  EXPECT_EQ(manager.Init(64, 8193, kMjpeg, kMjpeg, nullptr), -1);
  ASSERT_EQ(manager.Init(64, 64, kMjpeg, kH264, nullptr), 0);
  EXPECT_EQ(manager.EnqueueFrame(nullptr), -1);
  EXPECT_EQ(manager.EnqueueFrame(MakeFrame({}, 1).release()), 0);  // Empty, and not a picture: freed.
  EXPECT_EQ(manager.EnqueueFrame(MakeFrame(Bytes(50), 1).release()), 0);
  EXPECT_EQ(Dequeue(manager, 0), nullptr);
  ASSERT_EQ(manager.Init(64, 64, kMjpeg, kMjpeg, nullptr), 0);  // From the start, without what was there.
  EXPECT_EQ(Dequeue(manager, 0), nullptr);
  manager.Release();
  manager.Release();
}

TEST(FrameManager, DumpsWhatComesInAndWhatWasEncoded) {
  const std::string folder = testing::TempDir();
  const std::array<std::string, 2> files = {folder + "frames.encoded", folder + "frames.raw"};
  const CapturingLog log(OSKELO_LOG_ERROR);
  UVCFrameManager manager(kYuyv, kH264);
  manager.EnableDumpStream(nullptr, 0);
  manager.EnableDumpStream(files[0].c_str(), 2);
  for (const std::uint8_t type : {UVCFrameManager::kDumpEncoded, UVCFrameManager::kDumpRaw}) {
    manager.EnableDumpStream(files[type].c_str(), type);
  }
  ASSERT_EQ(manager.Init(64, 64, kYuyv, kH264, nullptr), 0);
  const Bytes picture = JpegWriter{.width = 64, .height = 64}.Yuyv();
  ASSERT_EQ(manager.EnqueueFrame(MakeFrame(picture, 0).release()), 0);
  const UVCFramePtr unit = Dequeue(manager);
  ASSERT_NE(unit, nullptr);
  manager.DisableDumpStream();
  manager.DumpStream(picture.data(), 9, UVCFrameManager::kDumpRaw);  // Off.
  manager.EnableDumpStream("/dev/full", UVCFrameManager::kDumpRaw);
  for (int i = 0; i < 2; ++i) {
    manager.DumpStream(picture.data(), 8192, UVCFrameManager::kDumpRaw);
  }
  EXPECT_THAT(log.Messages(), testing::ElementsAre("Error:unknow stream type.",
                                                   "Error:cannot write 8192 bytes of frames, the dump ends"));
  const auto content = [](const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(stream), {});
  };
  EXPECT_EQ(content(files[1]), picture);
  EXPECT_EQ(content(files[0]), Bytes(unit->data, unit->data + unit->length));
}

// Producers, coders and consumers at once, with Release and Init at any moment between them. Release meets a consumer
// before it waits, while it does, and after it: one that is not woken hangs.
TEST(FrameManager, StopsFromAnyState) {
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
      out += Dequeue(manager) != nullptr ? 1 : 0;
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
