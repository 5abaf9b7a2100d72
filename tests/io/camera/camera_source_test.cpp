// The camera sources by themselves.
#include <gmock/gmock.h>

#include <memory>
#include <thread>

#include "Completions.h"
#include "FakeCapture.h"
#include "io/DummyUsbIo/BgrxToYuyv.h"
#include "io/DummyUsbIo/DummyCamera.h"
#include "io/DummyUsbIo/ICameraFactory.h"
#include "io/DummyUsbIo/QtCamera.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

class Pictures final : public CameraStreamCallback {
 public:
  void CameraStreamCb(std::uint8_t* data, std::uint32_t length, void* context) override {
    const MutexLock lock(mMutex);
    mGot.push_back({context, Bytes(data, data + length), std::chrono::steady_clock::now()});
    mChanged.NotifyAll();
  }
  struct Picture {
    void* context;
    Bytes bytes;
    std::chrono::steady_clock::time_point when;
  };
  std::vector<Picture> Await(std::size_t n) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mGot.size() < n && mChanged.WaitUntil(lock, deadline)) {
    }
    return mGot;
  }

 private:
  Mutex mMutex;
  CondVar mChanged;
  std::vector<Picture> mGot VEL_GUARDED_BY(mMutex);
};

TEST(CameraFactory, MakesTheSourceOfAType) {
  FakeCapture capture;
  const CapturingLog log;
  for (const int type : {0, 1, 2, 3, -1}) {
    const std::unique_ptr<ICamera> camera(ICameraFactory::CreateCamera(type));
    EXPECT_EQ(camera == nullptr, type == 2);
    EXPECT_EQ(dynamic_cast<QtCamera*>(camera.get()) != nullptr, type == 1);
    EXPECT_EQ(dynamic_cast<DummyCamera*>(camera.get()) != nullptr, type != 1 && type != 2);
  }
  EXPECT_THAT(log.Messages("CreateCamera"), Contains("Error:unsupport v4l2 in this platform"));
}

TEST(DummyCamera, ListsItselfAndItsSizes) {
  DummyCamera camera;
  std::vector<_CameraInfo> list(1);
  EXPECT_EQ(camera.GetCameraList(list), 0);
  ASSERT_EQ(list.size(), 4U);
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(list[i + 1].index, i);
    EXPECT_STREQ(list[i + 1].name, "Dummy Camera");
    EXPECT_EQ(list[i + 1].available, 1);
  }
  _CameraParam* params = nullptr;
  int count = 0;
  EXPECT_EQ(camera.GetParamList(&params, &count), 0);
  const std::unique_ptr<_CameraParam[]> owned(params);
  EXPECT_EQ(count, 2);
  _CameraParam huge{8193, 1, 2, 0};
  EXPECT_LT(camera.SetParam(&huge), 0);
}

TEST(DummyCamera, OddWidthsHaveRowsInTheSecondPlane) {
  for (const std::uint32_t width : {1U, 5U, 6U, 641U}) {
    constexpr std::uint32_t kHeight = 3;
    Bytes picture(std::size_t{2} * width * kHeight);
    DummyCamera::Paint(picture, width, kHeight, 100);
    const std::uint8_t* second = picture.data() + std::size_t{width} * kHeight;
    EXPECT_EQ(picture[0], 300 % 256);
    EXPECT_EQ(picture[width + width - 1], (width - 1 + 1 + 300) % 256);
    EXPECT_EQ(second[2 * width], width % 2 == 0 ? (500 + 64) % 256 : (2 + 200 + 128) % 256);
    EXPECT_EQ(second[width - 1], width % 2 == 0 ? (width - 1 + 500 + 64) % 256 : (200 + 128) % 256);
  }
}

TEST(DummyCamera, GivesAPictureForEachRequestToTheLatestCallback) {
  DummyCamera camera;
  _CameraParam param{4, 2, 2, 0};
  ASSERT_EQ(camera.SetParam(&param), 0);
  Pictures former;
  Pictures pictures;
  int context = 0;
  camera.SetStreamCallback(&former, nullptr);
  camera.SetStreamCallback(&pictures, nullptr);
  camera.SetStreamCallback(&pictures, &context);
  EXPECT_EQ(camera.StreamOff(), -1);
  EXPECT_EQ(camera.StreamOn(), 0);
  EXPECT_EQ(camera.StreamOn(), 0) << "keeps the producer";
  const auto got = pictures.Await(3);
  ASSERT_EQ(got.size(), 3U);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(got[i].context, &context);
    EXPECT_EQ(got[i].bytes.size(), 16U);
    EXPECT_EQ(got[i].bytes[0], static_cast<std::uint8_t>(got[0].bytes[0] + 3 * i));
    if (i > 0) {
      EXPECT_GE(got[i].when - got[i - 1].when, std::chrono::milliseconds(29));
    }
  }
  camera.SetStreamCallback(&pictures, nullptr);
  EXPECT_EQ(camera.StreamOff(), 0);
  EXPECT_EQ(camera.StreamOn(), 0);
  std::this_thread::sleep_for(kNever);  // Only lets a fault show: a picture of before the stop.
  EXPECT_EQ(camera.StreamOff(), 0);
  EXPECT_EQ(pictures.Await(0).size(), 3U);
  EXPECT_TRUE(former.Await(0).empty());
}

TEST(QtCamera, GivesUpACameraThatDoesNotFinishOpening) {
  FakeCapture capture;
  capture.BlockOpen();
  const CapturingLog log;
  {
    QtCamera camera;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(camera.Open("slow"), -1);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(2990));
    EXPECT_LT(took, std::chrono::milliseconds(3000 + 1000 * kSlowdown));
    EXPECT_THAT(log.Messages("Open"), ElementsAre("Error:Open camera[-1], failed."));
    EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen slow", "CamClose slow"));
  }
  // It opens when nobody wants it any more, not even the camera that is gone.
  capture.ReleaseOpen();
  while (log.Count("Open camera[slow] finish.") == 0) {
    std::this_thread::yield();
  }
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen slow", "CamClose slow", "CamClose slow"));
}

TEST(QtCamera, ClosesOnlyWhatItOpened) {
  FakeCapture capture;
  capture.openResult = -5;
  {
    const CapturingLog log;
    QtCamera camera;
    EXPECT_EQ(camera.Open("busy"), -1);
    EXPECT_EQ(camera.Close(), 0);
    EXPECT_THAT(log.Messages("OpenCamera"), Contains("Error:open camera failed, ret[-5]"));
    EXPECT_THAT(log.Messages("Open"), ElementsAre("Error:Open camera[-5], failed."));
  }
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen busy")) << "another may have it open";
  capture.openResult = 0;
  {
    QtCamera camera;
    EXPECT_EQ(camera.StreamOff(), -1);
    EXPECT_EQ(camera.Open("a"), 0);
    EXPECT_EQ(camera.Close(), 0);
    EXPECT_EQ(camera.Open("b"), 0);
    EXPECT_EQ(camera.StreamOn(), 0);
    EXPECT_TRUE(capture.WaitForStream());
  }
  EXPECT_THAT(capture.Calls(), ElementsAre("CamOpen busy", "CamOpen a", "CamClose a", "CamOpen b", "CamStreamOn b",
                                           "CamStreamOff b", "CamClose b"));
}

TEST(BgrxToYuyv, ConvertsPairsAndSkipsAnOddColumn) {
  // Black, white, blue, green, red, and one that is skipped.
  const Bytes row = {0, 0, 0, 9, 255, 255, 255, 9, 255, 0, 0, 9, 0, 255, 0, 9, 0, 0, 255, 9, 1, 2, 3, 9, 4, 4, 4, 9};
  Bytes bgrx = row;
  bgrx.insert(bgrx.end(), row.begin(), row.end());
  Bytes yuyv(25, 0xEE);
  ASSERT_TRUE(BgrxToYuyv(bgrx, 7, 2, yuyv));
  EXPECT_EQ(yuyv[0], 0);
  EXPECT_NEAR(yuyv[2], 255, 1);
  EXPECT_EQ(yuyv[4], 29);
  EXPECT_EQ(yuyv[6], 149);
  EXPECT_EQ(yuyv[5], (255 + 43) / 2);
  EXPECT_EQ(yuyv[7], (107 + 21) / 2);
  EXPECT_EQ(yuyv[8], 76);
  EXPECT_EQ(Bytes(yuyv.begin(), yuyv.begin() + 12), Bytes(yuyv.begin() + 12, yuyv.begin() + 24));
  EXPECT_EQ(yuyv[24], 0xEE);
  EXPECT_FALSE(BgrxToYuyv(bgrx, 7, 3, yuyv));
  EXPECT_FALSE(BgrxToYuyv(bgrx, 7, 2, std::span(yuyv).first(23)));
}

}  // namespace
}  // namespace vel
