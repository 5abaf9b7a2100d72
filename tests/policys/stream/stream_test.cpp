// One stream: payloads to answered reads, what fails on the way, and its end.
#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include "Scene.h"
#include "ScriptedCamera.h"
#include "policys/UVCDecoder.h"

namespace vel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

using C = ScriptedCamera;
using Done = Completions::Done;

constexpr std::uint8_t kFid = 1;
constexpr std::uint8_t kEof = 2;
constexpr std::uint8_t kErr = 0x40;

// What a scripted backend holds of a camera at rest.
std::size_t InFlight(Kind kind) {
  return kind == Kind::kEmulated ? 1 : kind == Kind::kIso ? 5 : 3;
}

// Whole frames of the three kinds of camera.
void Feed(C& camera, Kind kind, const std::string& frame) {
  if (kind == Kind::kIso) {
    EXPECT_TRUE(camera.Complete(C::Transfer({{kEof, frame}})));
  } else {
    EXPECT_TRUE(camera.Complete(kind == Kind::kBulk ? C::Payload({kEof, frame}) : frame));
  }
}

class EachKind : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(Stream, EachKind, testing::Values(Kind::kEmulated, Kind::kIso, Kind::kBulk),
                         [](const auto& kind) {
                           return kind.param == Kind::kEmulated ? "Emulated"
                                  : kind.param == Kind::kIso    ? "Iso"
                                                                : "Bulk";
                         });

TEST(Stream, BulkPayloadsBecomeFramesBitExact) {
  C camera(Kind::kBulk);
  camera.Start(C::Ctrl(80, 32));
  camera.Read(3);
  const std::string full(20, 'x');  // With its header the largest payload: no short packet ends it.
  for (const C::Packet& payload : std::vector<C::Packet>{
           {0, full}, {0, full}, {kErr, "err"}, {0, ""}, {kEof, "end"}, {kFid, full}, {0, "toggle"}, {kEof, ""}}) {
    ASSERT_TRUE(camera.Complete(C::Payload(payload)));
  }
  ASSERT_TRUE(camera.Complete("too short"));
  EXPECT_THAT(camera.reads.done.Await(3),
              ElementsAre(Done{1, 0, full + full + "end"}, Done{2, 0, full}, Done{3, 0, "toggle"}));
}

TEST(Stream, OfAnEmulatedCameraKeepsThreeFramesUntilTheyAreRead) {
  C camera(Kind::kEmulated);
  camera.Start(C::Ctrl(70000));  // Recycled blocks.
  for (const char* frame : {"1", "2", "3", "dropped", "dropped", ""}) {
    ASSERT_TRUE(camera.Complete(frame));
  }
  camera.Read(2);
  EXPECT_THAT(camera.reads.done.Await(2), ElementsAre(Done{1, 0, "1"}, Done{2, 0, "2"}));
  for (const char* frame : {"4", "5", "dropped"}) {
    ASSERT_TRUE(camera.Complete(frame));
  }
  camera.Read(3);
  EXPECT_THAT(camera.reads.done.Await(5),
              ElementsAre(testing::_, testing::_, Done{3, 0, "3"}, Done{4, 0, "4"}, Done{5, 0, "5"}));
  EXPECT_THAT(camera.Submitted(), Each(70000U)) << "a record has its whole size again";
}

// Reads in front of a frame that never comes of what a coder could not use.
TEST(Stream, FramesThatACoderLosesDoNotCountAsWaiting) {
  UVCStreamTally tally;
  for (std::uint32_t good = 3; good < 40; good += 4) {
    for (int lost = 0; lost < 3; ++lost) {
      ASSERT_TRUE(tally.AddPending());
    }
    ASSERT_FALSE(tally.AddPending());
    tally.FrameMissed();
    ASSERT_TRUE(tally.AddPending());
    tally.FrameSent(good, 1, 1, 0);
  }
}

TEST_P(EachKind, AnswersReadsInOrderAndOnceEach) {
  C camera(GetParam());
  camera.Start(C::Ctrl(64));
  for (std::uint32_t i = 1; i <= 60; ++i) {
    camera.Read();
    Feed(camera, GetParam(), "frame " + std::to_string(i));
    ASSERT_EQ(camera.reads.done.Await(i).back(), (Done{i, 0, "frame " + std::to_string(i)}));
  }
  camera.Read(2);
  EXPECT_FALSE(camera.policy->CancelTransfer(99));
  EXPECT_TRUE(camera.policy->CancelTransfer(62));
  EXPECT_EQ(camera.reads.done.Await(61).back(), (Done{62, kXferCancelled}));
  Feed(camera, GetParam(), "last");
  EXPECT_EQ(camera.reads.done.Await(62).back(), (Done{61, 0, "last"}));
}

TEST_P(EachKind, StopsWithReadsAndTransfersOutstandingAndStartsAgain) {
  C camera(GetParam());
  std::size_t reads = 0;
  for (std::uint32_t i = 1; i <= 50; ++i) {
    const std::uint32_t size = 16 * i;
    camera.Start(C::Ctrl(size));
    ASSERT_TRUE(camera.io.WaitForHeld(InFlight(GetParam())));
    camera.Read(3);
    const std::string frame(size, static_cast<char>('a' + i % 26));
    Feed(camera, GetParam(), frame);
    ASSERT_THAT(camera.reads.done.Await(reads + 1).at(reads), (Done{static_cast<std::uint32_t>(reads) + 1, 0, frame}));
    if (i % 3 == 0) {
      camera.Stop();
    } else if (i % 3 == 1) {
      camera.policy->Release();
    } else {
      camera.Start(2);  // From one setting to another.
      camera.Stop();
    }
    reads += 3;
    ASSERT_EQ(camera.reads.done.Count(), reads) << "when the stop returns";
    EXPECT_EQ(camera.reads.done.Await(reads).back().status, kXferTimedOut);
    ASSERT_FALSE(camera.io.CompleteNext({})) << "and none is held";
  }
  camera.Start(C::Ctrl(8));
  camera.Read(2);
  camera.policy.reset();
  EXPECT_EQ(camera.reads.done.Count(), reads + 2);
}

TEST(Stream, ReadWithoutAFrameTimesOut) {
  C camera(Kind::kIso);
  camera.Start(C::Ctrl(8));
  const auto begin = std::chrono::steady_clock::now();
  camera.Read();
  EXPECT_THAT(camera.reads.done.Await(1), ElementsAre(Done{1, kXferTimedOut, ""}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
}

TEST(Stream, FailedTransfersAreTriedAgainAndAStallIsCleared) {
  for (const Kind kind : {Kind::kIso, Kind::kBulk}) {
    C camera(kind);
    camera.Start(C::Ctrl(64));
    for (std::size_t i = 0; i < InFlight(kind); ++i) {
      ASSERT_TRUE(camera.io.CompleteNext({.status = i == 0 ? 4 : kXferError, .bytes = {}}));
    }
    ASSERT_TRUE(camera.io.WaitForHeld(InFlight(kind)));
    std::vector<std::string> calls = camera.io.Calls();
    EXPECT_EQ(std::ranges::count(calls, "ClearHalt 129"), 1);
    EXPECT_EQ(std::ranges::count(calls, calls.back()), 2) << "each once again";
    camera.Read();
    Feed(camera, kind, "works");
    EXPECT_THAT(camera.reads.done.Await(1), ElementsAre(Done{1, 0, "works"}));
  }
  C refused(Kind::kIso);
  refused.io.Answer("IsochTransfer", LIBUSB_ERROR_IO);
  refused.Start(C::Ctrl(64));
  EXPECT_THAT(refused.Submitted(), SizeIs(5));
  refused.io.Answer("IsochTransfer", 0);
  EXPECT_TRUE(refused.io.WaitForHeld(5));
}

TEST_P(EachKind, DeviceThatIsGoneIsLeftAlone) {
  C camera(GetParam());
  camera.Start(C::Ctrl(64));
  camera.Read();
  Feed(camera, GetParam(), "before");
  EXPECT_THAT(camera.reads.done.Await(1), ElementsAre(Done{1, 0, "before"}));
  const std::size_t submitted = camera.Submitted().size();
  while (camera.io.CompleteNext({.status = LIBUSB_TRANSFER_NO_DEVICE, .bytes = {}})) {
  }
  camera.Read();
  EXPECT_FALSE(camera.io.IsCalledSoon("ClearHalt 129"));
  camera.Stop();
  EXPECT_EQ(camera.reads.done.Count(), 2U);
  EXPECT_THAT(camera.Submitted(), SizeIs(submitted));
}

TEST_P(EachKind, RawPicturesComeOutAsH264WhenTranscoded) {
  C camera(GetParam(), true);
  camera.Start(C::Ctrl(C::kFrameBytes, C::kFrameBytes + 12));
  const Scene scene(C::kWidth, C::kHeight);
  UVCDecoder decoder;
  ASSERT_EQ(decoder.Init(UVC_DECODER_TYPE_H264, UVC_DECODER_OUTPUT_YUYV, C::kWidth, C::kHeight, nullptr), 0);
  for (std::uint32_t i = 1; i <= 12; ++i) {
    const Bytes picture = scene.Draw(static_cast<int>(i));
    camera.Read();
    Feed(camera, GetParam(), {picture.begin(), picture.end()});
    const std::string unit = camera.reads.done.Await(i).back().data.value();
    EXPECT_LT(unit.size(), C::kFrameBytes / 2);
    Bytes shown(C::kFrameBytes);
    std::uint32_t size = 0;
    EXPECT_EQ(decoder.Decode(reinterpret_cast<const std::uint8_t*>(unit.data()),
                             static_cast<std::uint32_t>(unit.size()), shown.data(), &size),
              1);
    EXPECT_EQ(size, C::kFrameBytes);
    EXPECT_GT(LumaPsnr(shown, picture), 25) << "picture " << i;
  }
}

TEST(Stream, JpegPicturesComeOutAsTheyAreWhenTranscoded) {
  C camera(Kind::kIso, true);
  UVCStreamCtrl ctrl = C::Ctrl(64);
  ctrl.bFormatIndex = 2;
  for (const std::size_t frame : {camera.block.starts[5], camera.block.starts[6]}) {
    camera.block.bytes[frame + 2] = 7;  // VS_FRAME_MJPEG
  }
  camera.policy->ParseDescriptors(&camera.tree.config);
  camera.Start(ctrl);
  camera.Read();
  Feed(camera, Kind::kIso, "jpeg");
  EXPECT_THAT(camera.reads.done.Await(1), ElementsAre(Done{1, 0, "jpeg"}));
}

// Whatever threads may, at every point: each record is completed once, nothing hangs.
TEST_P(EachKind, MayBeStartedStoppedReadAndCancelledByManyThreadsAtOnce) {
  for (unsigned seed = 0; seed < 12; ++seed) {
    C camera(GetParam(), seed % 4 == 3);
    camera.Commit(C::Ctrl(C::kFrameBytes, C::kFrameBytes + 12));
    std::atomic<bool> ending{false};
    const auto repeat = [&ending](auto action) {
      return std::thread([&ending, action] {
        while (!ending) {
          action();
        }
      });
    };
    const std::string frame = GetParam() == Kind::kIso    ? C::Transfer({{kEof, std::string(C::kFrameBytes, 'f')}})
                              : GetParam() == Kind::kBulk ? C::Payload({kEof, "frame"})
                                                          : std::string(C::kFrameBytes, 'f');
    std::array threads = {
        repeat([&] {
          static_cast<void>(camera.Complete(frame));
          std::this_thread::yield();
        }),
        repeat([&] {
          static_cast<void>(camera.io.CompleteNext({.status = kXferError, .bytes = {}}));
          camera.policy->CancelTransfer(static_cast<std::uint32_t>(camera.reads.done.Count()) + 2);
          std::this_thread::yield();
        }),
        repeat([&] { camera.policy->Release(); }),
    };
    std::mt19937 random(seed);  // The loop thread's part.
    for (int i = 0; i < 60; ++i) {
      if (random() % 3 == 0) {
        camera.Start(static_cast<std::uint32_t>(random() % 3));
      }
      camera.Read();
    }
    ending = seed % 2 == 0;
    if (!ending) {
      camera.policy->Release();
      ending = true;
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    camera.policy.reset();
    camera.backend->CloseUsbDev();
    ASSERT_EQ(camera.reads.done.Await(camera.made).size(), camera.made);
  }
}

}  // namespace
}  // namespace vel::test
