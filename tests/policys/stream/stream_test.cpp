// What the policy learns from the requests that pass, and the stream that it starts with it.
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>

#include <gmock/gmock.h>

#include "ScriptedCamera.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/NoThreads.h"
#include "support/Scene.h"

namespace vel::test {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

using Done = Completions::Done;

constexpr std::uint8_t kEof = 2;

constexpr std::uint32_t kMax = kMaxVideoFrameSize;

UVCStreamCtrl With(std::uint8_t format, std::uint8_t frame) {
  UVCStreamCtrl ctrl = ScriptedCamera::Ctrl(64);
  ctrl.bFormatIndex = format;
  ctrl.bFrameIndex = frame;
  return ctrl;
}

TEST(Negotiation, StartsWithWhatWasAgreedOnAlone) {
  struct Case {
    const char* name;
    Kind kind;
    std::function<void(ScriptedCamera&)> requests;
    std::vector<std::uint32_t> submitted;  // None: it does not start.
  };
  const UVCStreamCtrl good = ScriptedCamera::Ctrl(64);
  const std::vector<std::uint32_t> whole = {64};
  const std::vector<Case> cases = {
      {"nothing", Kind::kEmulated, [](ScriptedCamera&) {}, {}},
      {"48 bytes", Kind::kEmulated, [&](ScriptedCamera& c) { c.Commit(good, 48); }, whole},
      {"without data", Kind::kEmulated, [&](ScriptedCamera& c) { c.Commit(good, 0); }, {}},
      {"frame size cut off", Kind::kEmulated, [&](ScriptedCamera& c) { c.Commit(good, 18); }, {}},
      {"probe answer", Kind::kEmulated, [&](ScriptedCamera& c) { c.ProbeAnswer(ScriptedCamera::Block(good, 34)); },
       whole},
      {"commit answer alone",
       Kind::kEmulated,
       [&](ScriptedCamera& c) {
         Bytes data = ScriptedCamera::Block(good, 34);
         c.policy->PeekClassControlTransferRet({0xA1, 0x81, 0x0200, ScriptedCamera::kInterface, data});
       },
       {}},
      {"raw block",
       Kind::kEmulated,
       [&](ScriptedCamera& c) {
         c.Commit(good);
         c.policy->ParseDescriptors(VsBlock("mjpeg 64", 0x86).bytes);
         EXPECT_EQ(c.policy->GetVSEndpoint(), 0x86);
         c.policy->ParseDescriptors(Bytes());
         EXPECT_EQ(c.policy->GetVSEndpoint(), 0xFF);
       },
       {}},
      {"other interface", Kind::kEmulated, [&](ScriptedCamera& c) { c.Commit(good, 34, 0x0103); }, {}},
      {"format 2, frame 2", Kind::kEmulated, [](ScriptedCamera& c) { c.Commit(With(2, 2)); }, whole},
      {"no such format", Kind::kEmulated, [](ScriptedCamera& c) { c.Commit(With(3, 1)); }, {}},
      {"frame 0", Kind::kEmulated, [](ScriptedCamera& c) { c.Commit(With(1, 0)); }, {}},
      {"frame size 0", Kind::kIso, [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(0)); }, {}},
      {"64 MiB", Kind::kEmulated, [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(kMax)); }, {kMax}},
      {"above", Kind::kEmulated, [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(kMax + 1)); }, {}},
      {"payload 0", Kind::kIso, [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(64, 0)); }, {}},
      {"bulk", Kind::kBulk, [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(64, 70)); }, {70, 70, 70}},
      {"bulk, 64 MiB",
       Kind::kBulk,
       [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(64, kMax)); },
       {kMax, kMax, kMax}},
      {"bulk, payload 0", Kind::kBulk, [](ScriptedCamera& c) { c.Commit(ScriptedCamera::Ctrl(64, 0)); }, {}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    ScriptedCamera camera(test.kind);
    const CapturingLog log(OSKELO_LOG_ERROR);
    test.requests(camera);
    camera.Start();
    EXPECT_EQ(camera.Submitted(), test.submitted);
    EXPECT_EQ(log.Count("Error:Invalid frame type!"), test.submitted.empty() ? 1U : 0U);
    camera.Stop();
  }
}

TEST(Negotiation, PacketsAreNoLargerThanAgreedOnAndThanTheSettingCarries) {
  const Bytes superSpeed = {6, 0x30, 15, 2, 0x00, 0xB4};                                 // 46080 bytes.
  const Bytes superSpeedPlus = {6, 0x30, 15, 0x82, 1, 0, 8, 0x31, 0, 0, 0x00, 0x70, 1};  // 94208, cut short.
  const Bytes whole = {6, 0x30, 15, 0x82, 1, 0, 8, 0x31, 0, 0, 0x00, 0x70, 1, 0};
  const struct {
    std::uint16_t wMaxPacketSize;
    Bytes companion;
    std::uint32_t agreed;
    std::uint32_t packets;  // 0: no stream.
  } cases[] = {{0x0400, {}, 3072, 1024},           {0x0C00, {}, 3072, 2048},       {0x1400, {}, 3072, 3072},
               {0x1400, {}, 3060, 3060},           {0x0000, {}, 3060, 3060},       {0x0400, superSpeed, 50000, 46080},
               {0x1400, {2, 5}, 3060, 3060},       {0x0400, whole, 100000, 94208}, {0x0400, superSpeedPlus, 9, 1},
               {0x0000, {}, kMax / 32, kMax / 32}, {0x0000, {}, kMax / 32 + 1, 0}};
  for (const auto& [wMaxPacketSize, companion, agreed, packets] : cases) {
    SCOPED_TRACE(agreed);
    ScriptedCamera camera(Kind::kIso);
    camera.tree.endpoint.wMaxPacketSize = wMaxPacketSize;
    DescriptorTree::SetExtra(camera.tree.endpoint, companion);
    camera.policy->ParseDescriptors(&camera.tree.config);
    camera.Start(ScriptedCamera::Ctrl(64, agreed));
    for (const ScriptedUsbIo::Submitted& each : camera.io.Transfers()) {
      EXPECT_EQ(each.packetLength, packets);
    }
    EXPECT_THAT(camera.io.Transfers(), SizeIs(packets == 0 ? 0 : 5));
  }
}

// Colour and infrared: all that is known is of the first interface that can be read.
TEST(Negotiation, BelongsToOneStreamingInterface) {
  ScriptedCamera camera(Kind::kIso);
  const VsBlock infrared("yuyv 480", 0x86);
  libusb_interface_descriptor settings[2] = {camera.tree.settings[0], camera.tree.settings[0]};
  settings[0].bInterfaceNumber = 2;  // Nothing to be read of it.
  settings[0].extra = nullptr;
  settings[0].extra_length = 0;
  settings[1].bInterfaceNumber = 5;
  DescriptorTree::SetExtra(settings[1], infrared.bytes);
  const libusb_interface interfaces[] = {{&settings[0], 1}, camera.tree.interface, {&settings[1], 1}};
  camera.tree.config.interface = interfaces;
  for (const std::uint8_t count : {std::uint8_t{2}, std::uint8_t{3}}) {
    camera.tree.config.bNumInterfaces = count;
    camera.policy->ParseDescriptors(&camera.tree.config);
    EXPECT_EQ(camera.policy->GetVSInterface(), ScriptedCamera::kInterface);
    EXPECT_EQ(camera.policy->GetVSEndpoint(), 0x81);
  }
  camera.Start(ScriptedCamera::Ctrl(64));
  EXPECT_THAT(camera.Submitted(), SizeIs(5)) << "isochronous, as it is and the others are not";
}

TEST(Negotiation, AnswerGoesOnWithoutTheH265BitWhenItsFrameIsKnown) {
  for (const std::size_t size : {13U, 26U, 34U, 35U, 48U}) {
    SCOPED_TRACE(size);
    ScriptedCamera camera(Kind::kIso);
    UVCStreamCtrl ctrl = ScriptedCamera::Ctrl(64);
    ctrl.wCompQuality = 0x8005;
    Bytes expected = ScriptedCamera::Block(ctrl, size);
    if (size > 13) {
      expected[13] = 0;
    }
    EXPECT_EQ(camera.ProbeAnswer(ScriptedCamera::Block(ctrl, size)), expected);
    ctrl.bFrameIndex = 9;
    EXPECT_EQ(camera.ProbeAnswer(ScriptedCamera::Block(ctrl, size)), ScriptedCamera::Block(ctrl, size));
  }
}

TEST(Negotiation, ReadsWhileNoStreamRunsAreTheBackends) {
  ScriptedCamera camera(Kind::kIso);
  camera.Read();
  camera.Start();  // Not negotiated.
  camera.Read();
  EXPECT_FALSE(camera.policy->CancelTransfer(1));
  EXPECT_THAT(camera.io.Calls(), ElementsAre("IsochTransfer 129 1 16", "IsochTransfer 129 2 16"));
  camera.Start(ScriptedCamera::Ctrl(64));
  camera.Stop();
  camera.Read();
  EXPECT_EQ(camera.io.Calls().back(), "IsochTransfer 129 3 16");
  camera.backend->CloseUsbDev();
  EXPECT_THAT(camera.reads.done.Await(3), SizeIs(3));
}

// What a scripted backend holds of a camera at rest.
std::size_t InFlight(Kind kind) {
  return kind == Kind::kEmulated ? 1 : kind == Kind::kIso ? 5 : 3;
}

// Whole frames of the three kinds of camera.
void Feed(ScriptedCamera& camera, Kind kind, const std::string& frame) {
  if (kind == Kind::kIso) {
    EXPECT_TRUE(camera.Complete(ScriptedCamera::Transfer({{kEof, frame}})));
  } else {
    EXPECT_TRUE(camera.Complete(kind == Kind::kBulk ? ScriptedCamera::Payload({kEof, frame}) : frame));
  }
}

class EachKind : public testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(Stream, EachKind, testing::Values(Kind::kEmulated, Kind::kIso, Kind::kBulk),
                         [](const auto& kind) {
                           return kind.param == Kind::kEmulated ? "Emulated"
                                  : kind.param == Kind::kIso    ? "Iso"
                                                                : "Bulk";
                         });

TEST_P(EachKind, KeepsThreeFramesUntilTheyAreRead) {
  ScriptedCamera camera(GetParam());
  camera.Start(ScriptedCamera::Ctrl(70000, 64));                                          // Recycled blocks.
  Feed(camera, GetParam(), std::string(GetParam() == Kind::kEmulated ? 70001 : 0, 'x'));  // No frame.
  for (const char* frame : {"", "1", "2", "3", "dropped", "dropped"}) {
    Feed(camera, GetParam(), frame);
  }
  camera.Read(2);
  EXPECT_THAT(camera.reads.done.Await(2), ElementsAre(Done{1, 0, "1"}, Done{2, 0, "2"}));
  for (const char* frame : {"4", "5", "dropped"}) {
    Feed(camera, GetParam(), frame);
  }
  camera.Read(3);
  EXPECT_THAT(camera.reads.done.Await(5),
              ElementsAre(testing::_, testing::_, Done{3, 0, "3"}, Done{4, 0, "4"}, Done{5, 0, "5"}));
  EXPECT_THAT(camera.Submitted(), Each(camera.Submitted().front())) << "a record has its whole size again";
}

TEST(Stream, OneFrameWaitsForTheNextReadWhereNewestPicturesAreWanted) {
  ScriptedCamera camera(Kind::kEmulated, false, 0, true);
  camera.Start(ScriptedCamera::Ctrl(64));
  for (const char* frame : {"1", "dropped"}) {
    Feed(camera, Kind::kEmulated, frame);
  }
  camera.Read(3);
  EXPECT_THAT(camera.reads.done.Await(1), ElementsAre(Done{1, 0, "1"}));
  for (const char* frame : {"2", "3"}) {  // Reads wait for these.
    Feed(camera, Kind::kEmulated, frame);
  }
  camera.reads.done.Await(3);
  for (const char* frame : {"4", "dropped"}) {
    Feed(camera, Kind::kEmulated, frame);
  }
  camera.Read(1);
  EXPECT_THAT(camera.reads.done.Await(4), ElementsAre(testing::_, Done{2, 0, "2"}, Done{3, 0, "3"}, Done{4, 0, "4"}));
}

// Takes its time over a reply, as a remote side that does not read.
struct SlowRemote final : UsbIoTransferCallback {
  void UsbIoXferCb(_UsbIoXferInfo* info) override {
    const XferPtr owned(info);
    entered.Add(1);
    EXPECT_EQ(go.Await(1).size(), 1U);
  }
  Collected<int> entered;
  Collected<int> go;
};

TEST_P(EachKind, GoesOnReadingWhileTheRemoteSideTakesItsTime) {
  ScriptedCamera camera(GetParam());
  SlowRemote slow;
  camera.Start(ScriptedCamera::Ctrl(64));
  XferPtr read = MakeXfer();
  read->callback = &slow;
  ASSERT_EQ(camera.policy->DoTransfer(read.release()), 0);
  Feed(camera, GetParam(), "1");
  EXPECT_THAT(slow.entered.Await(1), SizeIs(1));
  for (int frame = 2; frame < 20; ++frame) {
    Feed(camera, GetParam(), std::to_string(frame));  // On this thread: it is not held.
  }
  EXPECT_TRUE(camera.io.WaitForHeld(InFlight(GetParam())));
  camera.Read(3);
  slow.go.Add(1);
  EXPECT_THAT(camera.reads.done.Await(3), ElementsAre(Done{1, 0, "2"}, Done{2, 0, "3"}, Done{3, 0, "4"}));
}

// Nobody who makes a frame ready sends beside the answering thread.
TEST(ReadAnswerer, SendsOneReplyAtATime) {
  UVCFrameManager frames(UVC_FRAME_TYPE_YUYV, UVC_FRAME_TYPE_YUYV);
  UVCStreamTally tally;
  UVCReadAnswerer answerer(frames, tally);
  SlowRemote slow;
  ASSERT_EQ(frames.Init(8, 8, UVC_FRAME_TYPE_YUYV, UVC_FRAME_TYPE_YUYV, nullptr), 0);
  EXPECT_FALSE(NoThreads::kPossible && (NoThreads(), answerer.Start())) << "no thread, no answers";
  ASSERT_TRUE(answerer.Start());
  for (std::uint32_t index = 0; index < 2; ++index) {
    ASSERT_EQ(frames.EnqueueFrame(MakeFrame(Bytes(16), index).release()), 0);
    XferPtr read = MakeXfer();
    read->callback = &slow;
    ASSERT_TRUE(answerer.Answer(read.release()));
  }
  EXPECT_THAT(slow.entered.Await(1), SizeIs(1));
  answerer.AnswerHere();
  EXPECT_EQ(slow.entered.Count(), 1U);
  slow.go.Add(1);
  EXPECT_THAT(slow.entered.Await(2), SizeIs(2));
  answerer.Stop();
}

TEST(Stream, RawPicturesThatAreNotWholeAreNotGivenOut) {
  ScriptedCamera camera(Kind::kBulk);
  camera.block.bytes[camera.block.starts[1] + 21] = 16;  // Bits for each pixel.
  camera.policy->ParseDescriptors(&camera.tree.config);
  const std::string whole(ScriptedCamera::kFrameBytes, 'w');
  for (const std::uint8_t format : {std::uint8_t{1}, std::uint8_t{2}}) {
    UVCStreamCtrl ctrl = ScriptedCamera::Ctrl(ScriptedCamera::kFrameBytes, ScriptedCamera::kFrameBytes + 12);
    ctrl.bFormatIndex = format;
    camera.Start(ctrl);
    Feed(camera, Kind::kBulk, "short");
    Feed(camera, Kind::kBulk, whole);
    camera.Read();
    EXPECT_EQ(camera.reads.done.Await(format).back(), (Done{format, 0, format == 1 ? whole : "short"}));
  }
}

// Reads in front of a frame that never comes of what a coder could not use.
TEST(Stream, FramesThatACoderLosesDoNotCountAsWaiting) {
  UVCStreamTally tally;
  tally.FrameMissed();  // Nothing waits.
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
  ScriptedCamera camera(GetParam());
  camera.Start(ScriptedCamera::Ctrl(64));
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
  ScriptedCamera camera(GetParam());
  std::size_t reads = 0;
  for (std::uint32_t i = 1; i <= 50; ++i) {
    const std::uint32_t size = 16 * i;
    camera.Start(ScriptedCamera::Ctrl(size));
    ASSERT_TRUE(camera.io.WaitForHeld(InFlight(GetParam())));
    camera.Read(3);
    const std::string frame(size, static_cast<char>('a' + i % 26));
    Feed(camera, GetParam(), frame);
    ASSERT_EQ(camera.reads.done.Await(reads + 1).at(reads), (Done{static_cast<std::uint32_t>(reads) + 1, 0, frame}));
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
  camera.Start(ScriptedCamera::Ctrl(8));
  camera.Read(2);
  camera.policy.reset();
  EXPECT_EQ(camera.reads.done.Count(), reads + 2);
}

TEST(Stream, ReadThatTimesOutMakesRoomForAFrameInsteadOfOneThatACoderLost) {
  ScriptedCamera camera(Kind::kEmulated, true, 1);
  const CapturingLog log(OSKELO_LOG_ERROR);
  camera.Start(ScriptedCamera::Ctrl(64));
  for (const std::size_t lost : {1U, 2U, 3U, 3U}) {
    Feed(camera, Kind::kEmulated, "no JPEG");
    EXPECT_EQ(log.Count("Do async decode fail ("), lost);
  }
  const auto begin = std::chrono::steady_clock::now();
  camera.Read();
  EXPECT_THAT(camera.reads.done.Await(1), ElementsAre(Done{1, kXferTimedOut, ""}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  Feed(camera, Kind::kEmulated, "no JPEG");
  EXPECT_EQ(log.Count("Do async decode fail ("), 4U);
}

TEST(Stream, FailedTransfersAreTriedAgainAndAStallIsCleared) {
  for (const Kind kind : {Kind::kEmulated, Kind::kIso, Kind::kBulk}) {
    ScriptedCamera camera(kind);
    camera.Start(ScriptedCamera::Ctrl(64));
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
}

TEST(Stream, RefusedTransfersAreTriedAgainMoreAndMoreSeldomAndSaySoOnceASecond) {
  for (const int refusal : {LIBUSB_ERROR_IO, LIBUSB_ERROR_INVALID_PARAM, LIBUSB_ERROR_NOT_FOUND}) {
    ScriptedCamera camera(Kind::kIso);
    camera.io.Answer("IsochTransfer", refusal);
    const CapturingLog log(OSKELO_LOG_ERROR);
    const auto begin = std::chrono::steady_clock::now();
    camera.Start(ScriptedCamera::Ctrl(64));
    while (camera.Submitted().size() < 5 + 5 + 2) {  // All twice, then one by one.
      std::this_thread::yield();
    }
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(33 + 66 + 132));
    EXPECT_LE(log.Count("Error:Submit transfer error["), 1U + static_cast<std::size_t>(took / std::chrono::seconds(1)));
    EXPECT_GE(log.Count("Error:Error submitting transfer, 1"), 1U);
    camera.io.Answer("IsochTransfer", 0);
    ASSERT_TRUE(camera.io.WaitForHeld(1));
    Feed(camera, Kind::kIso, "works");
    EXPECT_TRUE(camera.io.WaitForHeld(5));
  }
}

// Whatever threads may, at every point: each record is completed once, nothing hangs.
TEST_P(EachKind, MayBeStartedStoppedReadAndCancelledByManyThreadsAtOnce) {
  for (unsigned seed = 0; seed < 12; ++seed) {
    ScriptedCamera camera(GetParam(), seed % 4 == 3);
    camera.Commit(ScriptedCamera::Ctrl(ScriptedCamera::kFrameBytes, ScriptedCamera::kFrameBytes + 12));
    std::atomic<bool> ending{false};
    const auto repeat = [&ending](auto action) {
      return std::thread([&ending, action] {
        while (!ending) {
          action();
        }
      });
    };
    const std::string frame = GetParam() == Kind::kIso
                                  ? ScriptedCamera::Transfer({{kEof, std::string(ScriptedCamera::kFrameBytes, 'f')}})
                              : GetParam() == Kind::kBulk ? ScriptedCamera::Payload({kEof, "frame"})
                                                          : std::string(ScriptedCamera::kFrameBytes, 'f');
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
