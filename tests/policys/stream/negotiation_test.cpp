// What the policy learns from the requests that pass, and what it starts with it.
#include <functional>

#include <gmock/gmock.h>

#include "ScriptedCamera.h"
#include "support/CapturingLog.h"

namespace vel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr std::uint32_t kMax = kMaxVideoFrameSize;

UVCStreamCtrl With(std::uint8_t format, std::uint8_t frame) {
  UVCStreamCtrl ctrl = ScriptedCamera::Ctrl(64);
  ctrl.bFormatIndex = format;
  ctrl.bFrameIndex = frame;
  return ctrl;
}

TEST(Negotiation, StartsWithWhatWasAgreedOnAlone) {
  using C = ScriptedCamera;
  struct Case {
    const char* name;
    Kind kind;
    std::function<void(C&)> requests;
    std::vector<std::uint32_t> submitted;  // None: it does not start.
  };
  const UVCStreamCtrl good = C::Ctrl(64);
  const std::vector<std::uint32_t> whole = {64};
  const std::vector<Case> cases = {
      {"nothing", Kind::kEmulated, [](C&) {}, {}},
      {"26 bytes", Kind::kEmulated, [&](C& c) { c.Commit(good, 26); }, whole},
      {"48 bytes", Kind::kEmulated, [&](C& c) { c.Commit(good, 48); }, whole},
      {"without data", Kind::kEmulated, [&](C& c) { c.Commit(good, 0); }, {}},
      {"frame size cut off", Kind::kEmulated, [&](C& c) { c.Commit(good, 18); }, {}},
      {"probe answer", Kind::kEmulated, [&](C& c) { c.ProbeAnswer(C::Block(good, 34)); }, whole},
      {"probe request alone", Kind::kEmulated, [&](C& c) { c.Probe(C::Block(good, 34)); }, {}},
      {"other interface", Kind::kEmulated, [&](C& c) { c.Commit(good, 34, 0x0103); }, {}},
      {"format 2, frame 2", Kind::kEmulated, [](C& c) { c.Commit(With(2, 2)); }, whole},
      {"no such format", Kind::kEmulated, [](C& c) { c.Commit(With(3, 1)); }, {}},
      {"no such frame", Kind::kEmulated, [](C& c) { c.Commit(With(1, 3)); }, {}},
      {"frame 0", Kind::kEmulated, [](C& c) { c.Commit(With(1, 0)); }, {}},
      {"frame size 0", Kind::kIso, [](C& c) { c.Commit(C::Ctrl(0)); }, {}},
      {"64 MiB", Kind::kEmulated, [](C& c) { c.Commit(C::Ctrl(kMax)); }, {kMax}},
      {"above", Kind::kEmulated, [](C& c) { c.Commit(C::Ctrl(kMax + 1)); }, {}},
      {"isochronous", Kind::kIso, [](C& c) { c.Commit(C::Ctrl(64)); }, {512, 512, 512, 512, 512}},
      {"payload 0", Kind::kIso, [](C& c) { c.Commit(C::Ctrl(64, 0)); }, {}},
      {"packets above 64 MiB", Kind::kIso, [](C& c) { c.Commit(C::Ctrl(64, kMax / 32 + 1)); }, {}},
      {"bulk", Kind::kBulk, [](C& c) { c.Commit(C::Ctrl(64, 70)); }, {70, 70, 70}},
      {"bulk, payload 0", Kind::kBulk, [](C& c) { c.Commit(C::Ctrl(64, 0)); }, {}},
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

TEST(Negotiation, HeightLimitShortensTheDescriptors) {
  const ScriptedCamera camera(Kind::kIso);
  Bytes block = camera.block.bytes;
  EXPECT_EQ(camera.policy->RewriteDescriptors(block), std::nullopt);
  EXPECT_EQ(UVCPolicy(camera.backend.get(), 64, 1, 1).RewriteDescriptors(block), std::nullopt);
  EXPECT_EQ(UVCPolicy(camera.backend.get(), 48, 1, 1).RewriteDescriptors(block), block.size() - 60);
}

}  // namespace
}  // namespace vel::test
