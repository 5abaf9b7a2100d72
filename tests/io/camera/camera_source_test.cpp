// The camera sources by themselves.
#include <gmock/gmock.h>

#include <memory>
#include <thread>

#include "FakeCapture.h"
#include "VirtUsbDriver.h"
#include "io/DummyUsbIo/DummyCamera.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/DummyUsbIo/ICameraFactory.h"
#include "io/DummyUsbIo/QtCamera.h"
#include "pixel/BgrxToYuyv.h"
#include "remote/RequestBuilder.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/NoThreads.h"
#include "support/RecordingDeviceBase.h"

namespace vel {
namespace {

using ::testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

struct Pictures final : CameraStreamCallback {
  void CameraStreamCb(std::uint8_t* data, std::uint32_t length, void* /*context*/) override {
    got.Add(Bytes(data, data + length));
  }
  Collected<Bytes> got;
};

TEST(DummyCamera, GivesAPictureForEachRequestToTheLatestCallbackAtItsPace) {
  DummyCamera camera;
  _CameraParam param{8193, 1, 2, 0};
  EXPECT_LT(camera.SetParam(&param), 0);
  param = {4, 2, 2, 0};
  ASSERT_EQ(camera.SetParam(&param), 0);
  Pictures former;
  Pictures pictures;
  const auto begin = std::chrono::steady_clock::now();
  camera.SetStreamCallback(&former, nullptr);
  for (int i = 0; i < 2; ++i) {
    camera.SetStreamCallback(&pictures, nullptr);
  }
  EXPECT_EQ(camera.StreamOn(), 0);
  EXPECT_EQ(camera.StreamOn(), 0) << "keeps the producer";
  const auto got = pictures.got.Await(2);
  ASSERT_EQ(got.size(), 2U);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(29));
  EXPECT_EQ(got[0].size(), 16U);
  EXPECT_EQ(got[1][0], static_cast<std::uint8_t>(got[0][0] + 3));
  EXPECT_EQ(got[0][5], static_cast<std::uint8_t>(got[0][0] + 2)) << "counts up along the row and down the rows";
  EXPECT_EQ(got[0][13], static_cast<std::uint8_t>(got[0][8] + 1)) << "and here along the row";
  camera.SetStreamCallback(&pictures, nullptr);
  EXPECT_EQ(camera.StreamOff(), 0);
  EXPECT_EQ(camera.StreamOn(), 0);
  std::this_thread::sleep_for(kNever);  // Only lets a fault show: a picture of before the stop.
  EXPECT_EQ(pictures.got.Count(), 2U);
  camera.SetStreamCallback(&pictures, nullptr);  // Wakes the producer.
  EXPECT_EQ(pictures.got.Await(3).size(), 3U);
  EXPECT_EQ(camera.StreamOff(), 0);
  EXPECT_EQ(former.got.Count(), 0U);
  param = {3, 2, 2, 0};
  ASSERT_EQ(camera.SetParam(&param), 0);
  Pictures odd;
  camera.SetStreamCallback(&odd, nullptr);
  EXPECT_EQ(camera.StreamOn(), 0);
  const Bytes picture = odd.got.Await(1)[0];
  EXPECT_EQ(camera.StreamOff(), 0);
  ASSERT_EQ(picture.size(), 12U);
  EXPECT_EQ(picture[9], static_cast<std::uint8_t>(picture[6] + 1)) << "a colour for each row";
}

TEST(QtCamera, GivesUpACameraThatDoesNotFinishOpening) {
  FakeCapture capture;
  capture.BlockOpen(true);
  const CapturingLog log;
  {
    QtCamera camera;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(camera.Open("slow"), -1);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(2990));
    EXPECT_LT(took, std::chrono::milliseconds(3000 + 5000 * kSlowdown));
    EXPECT_THAT(log.Messages("Open"), ElementsAre("Error:Open camera[-1], failed."));
    EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen slow", "CamClose slow"));
  }
  // It opens when nobody wants it any more, not even the camera that is gone.
  capture.BlockOpen(false);
  while (log.Count("Open camera[slow] finish.") == 0) {
    std::this_thread::yield();
  }
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen slow", "CamClose slow", "CamClose slow"));
}

TEST(QtCamera, IsStoppedAtOnceWhileItOpensAndLeavesNoThread) {
  FakeCapture capture;
  capture.BlockOpen(true);
  const CapturingLog log;
  RecordingDeviceBase remote;
  {
    VirtUsbDriver driver(
        &remote, [](std::uint32_t, VelDeviceBase*) -> IUsbIo* { return new DummyUvcIo(1, 0x80, 1, 1, "slow"); });
    ASSERT_EQ(driver.Init(), 0);
    driver.onEvent(BuildRequest(Command::kOpenUsbDev, {}));
    while (capture.Calls().empty()) {
      std::this_thread::yield();
    }
    const auto start = std::chrono::steady_clock::now();
    driver.Close(0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900)) << "waited for the camera";
    EXPECT_EQ(remote.ReplyCount(), 1U);
    capture.BlockOpen(false);
  }
  EXPECT_EQ(log.Count("Open camera[slow] finish."), 1U);
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen slow", "CamClose slow", "CamClose slow"));
}

TEST(ICamera, AnswersWhatItDoesNotDoWithSuccessAndEndsWhileItStreams) {
  FakeCapture capture;
  const CapturingLog log(OSKELO_LOG_ERROR);
  for (const int type : {kCameraSynthetic, kCameraLocal}) {
    const std::unique_ptr<ICamera> camera(ICameraFactory::CreateCamera(type));
    const auto streams = [&] { return type == kCameraSynthetic || capture.WaitForStream(); };
    std::vector<_CameraInfo> list;
    _CameraParam param{};
    EXPECT_EQ(camera->GetCameraList(list), 0);
    EXPECT_THAT(list, testing::SizeIs(type == kCameraSynthetic ? 3 : 0));
    EXPECT_TRUE(list.empty() || (list[2].index == 2 && list[2].available == 1));
    EXPECT_STREQ(list.empty() ? "Dummy Camera" : list[2].name, "Dummy Camera");
    EXPECT_EQ(camera->GetCurrentFrame(nullptr, nullptr), 0);
    EXPECT_EQ(camera->EnableDebug(true), 0);
    EXPECT_EQ(camera->GetParam(&param), 0);
    EXPECT_EQ(camera->ProbeParam(&param), 0);
    EXPECT_EQ(camera->SetStreamCallback(nullptr, nullptr), 0);
    EXPECT_EQ(camera->StreamOff(), -1) << "not on";
    EXPECT_EQ(camera->Close(), 0) << "not open";
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(camera->Open("cam"), 0);
    }
    EXPECT_EQ(camera->StreamOn(), 0);
    EXPECT_TRUE(streams());
    EXPECT_EQ(camera->StreamOn(), 0) << "goes on";
    EXPECT_EQ(camera->StreamOff(), 0);
    EXPECT_EQ(camera->StreamOff(), -1) << "no more";
    EXPECT_EQ(camera->SetParam(&param), 0);
    EXPECT_EQ(camera->StreamOn(), 0);
    EXPECT_TRUE(streams());
  }
  EXPECT_THAT(capture.Calls(),
              ElementsAre("CamOpen cam", "CamStreamOn cam", "CamStreamOff cam", "streamed", "CamSetParam 0x0 0",
                          "CamStreamOn cam", "CamStreamOff cam", "streamed", "CamClose cam"));
  EXPECT_THAT(log.Messages(), testing::IsEmpty());
}

TEST(ICamera, WithoutAThreadDoesNotStartAndDoesLater) {
  if (!test::NoThreads::kPossible) {
    GTEST_SKIP() << "nothing here keeps a thread from being made";
  }
  FakeCapture capture;
  DummyCamera synthetic;
  QtCamera local;
  for (const bool threads : {false, true}) {
    const auto none = threads ? nullptr : std::make_unique<test::NoThreads>();
    EXPECT_EQ(synthetic.StreamOn() == 0, threads);
    EXPECT_EQ(local.Open("cam") == 0, threads);
  }
  EXPECT_EQ((test::NoThreads(), local.StreamOn()), -1);
  EXPECT_EQ(local.StreamOn(), 0);
  EXPECT_TRUE(capture.WaitForStream());
}

TEST(ICameraFactory, HasNoCameraOfTheSecondType) {
  const CapturingLog log;
  EXPECT_EQ(ICameraFactory::CreateCamera(2), nullptr);
  EXPECT_EQ(log.Count("Error:unsupport v4l2 in this platform"), 1U);
}

TEST(BgrxToYuyv, ConvertsPairsAndSkipsAnOddColumn) {
  // Black, white, blue, green, red, and one that is skipped.
  const Bytes row = {0, 0, 0, 9, 255, 255, 255, 9, 255, 0, 0, 9, 0, 255, 0, 9, 0, 0, 255, 9, 1, 2, 3, 9, 4, 4, 4, 9};
  Bytes yuyv(13, 0xEE);
  ASSERT_TRUE(BgrxToYuyv(row, 7, 1, yuyv));
  using testing::_;
  EXPECT_THAT(yuyv, ElementsAre(0, _, testing::Ge(254), _, 29, (255 + 43) / 2, 149, (107 + 21) / 2, 76, _, _, _, 0xEE));
  EXPECT_FALSE(BgrxToYuyv(row, 7, 2, yuyv));
  ASSERT_TRUE(BgrxToYuyv(row, 3, 2, yuyv));
  EXPECT_EQ(yuyv[4], 149) << "green again, of the second row";
  EXPECT_FALSE(BgrxToYuyv(row, 7, 1, std::span(yuyv).first(11)));
}

}  // namespace
}  // namespace vel
