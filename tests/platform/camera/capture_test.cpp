// The capture library over files and its test picture.
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "MediaFile.h"
#include "oskelo/camera.h"
#include "platform/Event.h"
#include "support/CapturingLog.h"
#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;

const bool gQuiet = [] {
  oskeloLogSetLevel(OSKELO_LOG_OFF);  // Until a test takes the log down.
  av_log_set_level(AV_LOG_QUIET);
  return true;
}();

// A stream on a thread of its own, and its pictures.
class Stream {
 public:
  explicit Stream(std::string id) : mId(std::move(id)) {
    CamSetStreamCallback(mId.c_str(), &Stream::Take, this);
    mThread = std::thread([this] { result = CamStreamOn(mId.c_str()); });
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  ~Stream() {
    Stop();
    CamSetStreamCallback(mId.c_str(), nullptr, nullptr);
  }
  void Stop() {
    CamStreamOff(mId.c_str());
    Join();
  }
  void Join() {
    if (mThread.joinable()) {
      mThread.join();
    }
  }
  std::vector<Bytes> Await(std::size_t n) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mPictures.size() < n && mChanged.WaitUntil(lock, deadline)) {
    }
    return {mPictures.begin(), mPictures.begin() + static_cast<std::ptrdiff_t>(std::min(n, mPictures.size()))};
  }
  std::vector<std::chrono::steady_clock::time_point> Times() {
    const MutexLock lock(mMutex);
    return mTimes;
  }

  std::atomic<int> result{99};

 private:
  static void Take(unsigned char* data, unsigned length, void* context) {
    auto& self = *static_cast<Stream*>(context);
    const MutexLock lock(self.mMutex);
    self.mPictures.emplace_back(data, data + length);
    self.mTimes.push_back(std::chrono::steady_clock::now());
    self.mChanged.NotifyAll();
  }

  const std::string mId;
  Mutex mMutex;
  CondVar mChanged;
  std::vector<Bytes> mPictures VEL_GUARDED_BY(mMutex);
  std::vector<std::chrono::steady_clock::time_point> mTimes VEL_GUARDED_BY(mMutex);
  std::thread mThread;
};

// An opened camera.
class Opened {
 public:
  explicit Opened(std::string id) : mId(std::move(id)), result(CamOpen(mId.c_str())) {}
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
  ~Opened() { CamClose(mId.c_str()); }
  std::vector<std::string> Params() const {
    _CameraParam* list = nullptr;
    int count = 0;
    std::vector<std::string> texts;
    EXPECT_EQ(CamGetParamList(mId.c_str(), &list, &count), 0);
    for (int i = 0; i < count; ++i) {
      texts.push_back(std::to_string(list[i].width) + "x" + std::to_string(list[i].height) + " " +
                      std::to_string(list[i].pixelFormat));
    }
    return texts;
  }

 private:
  const std::string mId;

 public:
  const int result;
};

// What is logged when the camera cannot be opened; opening must end soon.
std::string OpenError(const std::string& id) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_LT(CamOpen(id.c_str()), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  const auto lines = log.Lines();
  EXPECT_THAT(lines, SizeIs(1));
  _CameraParam* list = nullptr;
  int count = 0;
  EXPECT_LT(CamGetParamList(id.c_str(), &list, &count), 0);
  return lines.empty() ? std::string() : lines[0].text;
}

Bytes Yuyv(int luma, int width, int height) {
  Bytes picture;
  for (int i = 0; i < width * height; ++i) {
    picture.push_back(static_cast<std::uint8_t>(luma));
    picture.push_back(i % 2 == 0 ? 100 : 200);
  }
  return picture;
}

TEST(Capture, PlaysAVideoFromTheStartAgainAndAgain) {
  for (const MediaFile::Kind& kind :
       {MediaFile::Kind{.name = "a.mkv"}, MediaFile::Kind{.name = "a.avi", .width = 66, .height = 47},
        MediaFile::Kind{.name = "a.nut", .pictures = 1},
        MediaFile::Kind{.name = "raw.mkv", .codec = AV_CODEC_ID_RAWVIDEO}}) {
    SCOPED_TRACE(kind.name);
    const MediaFile file(kind);
    const Opened camera(file.Path());
    ASSERT_EQ(camera.result, 0);
    EXPECT_THAT(camera.Params(), ElementsAre(std::to_string(kind.width) + "x" + std::to_string(kind.height) + " 2"));
    Stream stream(file.Path());
    const std::vector<Bytes> pictures = stream.Await(11);
    for (std::size_t n = 0; n < 11; ++n) {
      EXPECT_EQ(pictures[n], Yuyv(16 + static_cast<int>(n) % kind.pictures, kind.width, kind.height)) << n;
    }
    stream.Stop();
    EXPECT_EQ(stream.result, 0);
  }
}

TEST(Capture, ScalesOddWidthsToEvenOnes) {
  const MediaFile file(
      {.name = "odd.mkv", .codec = AV_CODEC_ID_FFV1, .format = AV_PIX_FMT_YUV420P, .width = 65, .height = 33});
  const Opened camera(file.Path());
  EXPECT_THAT(camera.Params(), ElementsAre("64x33 2"));
  Stream stream(file.Path());
  EXPECT_THAT(stream.Await(1), ElementsAre(SizeIs(64 * 33 * 2)));
}

TEST(Capture, HandsOutMjpegAsItIs) {
  const MediaFile file({.name = "m.avi", .codec = AV_CODEC_ID_MJPEG, .format = AV_PIX_FMT_YUVJ422P});
  const Opened camera(file.Path());
  EXPECT_THAT(camera.Params(), ElementsAre("64x48 3"));
  Stream stream(file.Path());
  std::vector<Bytes> twice = file.Packets();
  twice.insert(twice.end(), file.Packets().begin(), file.Packets().end());
  EXPECT_EQ(stream.Await(10), twice);
}

TEST(Capture, KeepsTheRateOfTheFile) {
  const MediaFile file({.name = "slow.mkv", .perSecond = 20});
  const Opened camera(file.Path());
  Stream stream(file.Path());
  stream.Await(13);  // Two rounds and a half: 12 intervals of 50 ms.
  const auto times = stream.Times();
  const auto took = times[12] - times[0];
  EXPECT_GE(took, std::chrono::milliseconds(575));
  EXPECT_LT(took, std::chrono::milliseconds(600 + 1000 * kSlowdown));
}

TEST(Capture, SaysWhatIsWrongWithABadSource) {
  const std::string folder = std::filesystem::temp_directory_path();
  EXPECT_THAT(OpenError(folder + "/there is none.mp4"), HasSubstr("none.mp4\": No such file or directory"));
  EXPECT_THAT(OpenError(folder), HasSubstr("is not a file"));
  EXPECT_THAT(OpenError("/dev/video250"), HasSubstr("No such file or directory"));
  const std::string pipe = folder + "/capture_test_pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_THAT(OpenError(pipe), HasSubstr("is not a file"));
  std::filesystem::remove(pipe);
  EXPECT_THAT(OpenError("nosuchprotocol://host/x"), HasSubstr("Protocol not found"));

  const MediaFile none({.name = "none.mkv", .pictures = 0});
  EXPECT_THAT(OpenError(none.Path()), HasSubstr("is empty or cut short"));
  const MediaFile garbage({.name = "garbage.mkv"});
  garbage.SpoilHeader();
  EXPECT_THAT(OpenError(garbage.Path()), HasSubstr("Invalid data found"));
  const MediaFile cut({.name = "cut.avi"});
  cut.Cut(300);
  OpenError(cut.Path());
  cut.Cut(0);
  OpenError(cut.Path());
  const MediaFile broken({.name = "broken.avi", .codec = AV_CODEC_ID_FFV1, .pictures = 1});
  broken.SpoilPicture(0);
  EXPECT_THAT(OpenError(broken.Path()), HasSubstr("has no picture that can be read"));
}

TEST(Capture, GoesOnBehindABrokenPicture) {
  const MediaFile file({.name = "broken.avi", .codec = AV_CODEC_ID_HUFFYUV});
  file.SpoilPicture(2);
  const Opened camera(file.Path());
  ASSERT_EQ(camera.result, 0);
  Stream stream(file.Path());
  const std::vector<Bytes> pictures = stream.Await(12);
  for (const int whole : {0, 1, 3, 4}) {
    EXPECT_GE(std::count(pictures.begin(), pictures.end(), Yuyv(16 + whole, 64, 48)), 2) << whole;
  }
}

TEST(Capture, EndsWithAnErrorWhenTheFileVanishes) {
  const MediaFile file({.name = "gone.mkv"});
  const Opened camera(file.Path());
  const CapturingLog log(OSKELO_LOG_ERROR);
  Stream stream(file.Path());
  EXPECT_THAT(stream.Await(1), SizeIs(1));
  file.Remove();
  stream.Join();
  EXPECT_EQ(stream.result, -1);
  EXPECT_EQ(log.Count("No such file or directory"), 1U);
}

// A server that accepts and says nothing.
class Silence {
 public:
  Silence() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(mSocket, generic, size), 0);
    EXPECT_EQ(listen(mSocket, 1), 0);
    EXPECT_EQ(getsockname(mSocket, generic, &size), 0);
    mPort = ntohs(address.sin_port);
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;
  ~Silence() { close(mSocket); }
  std::string Address() const { return "tcp://127.0.0.1:" + std::to_string(mPort); }

 private:
  const int mSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int mPort = 0;
};

TEST(Capture, GivesUpASourceThatSaysNothing) {
  const Silence server;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_THAT(OpenError(server.Address()), HasSubstr("gave nothing in time"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2400));
}

TEST(Capture, EndsAnOpeningThatIsClosed) {
  const Silence server;
  const std::string id = server.Address();
  const CapturingLog log(OSKELO_LOG_ERROR);
  const auto start = std::chrono::steady_clock::now();
  std::atomic<int> result{0};
  std::thread opener([&] { result = CamOpen(id.c_str()); });
  while (CamClose(id.c_str()) < 0 && result == 0) {
    std::this_thread::yield();  // Until it is being opened.
  }
  opener.join();
  EXPECT_LT(result, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
  EXPECT_EQ(log.Count("closed while it was being opened"), 1U);
}

TEST(Capture, TakesTheDefaultSourceForTheEmptyId) {
  setenv(OSKELO_CAMERA_SOURCE_VARIABLE, "test", 1);
  {
    const Opened camera("");
    EXPECT_THAT(camera.Params(), ElementsAre("640x480 2", "1280x720 2"));
    const CapturingLog log(OSKELO_LOG_ERROR);
    EXPECT_LT(CamOpen(nullptr), 0) << "is open already";
    EXPECT_EQ(log.Count("is open already"), 1U);
  }
  CamSetDefaultSource("/nowhere");
  EXPECT_THAT(OpenError(""), HasSubstr("/nowhere"));
  CamSetDefaultSource(nullptr);
  unsetenv(OSKELO_CAMERA_SOURCE_VARIABLE);
}

TEST(Capture, ChoosesOnlyWhatIsListed) {
  const Opened camera("test");
  const CapturingLog log(OSKELO_LOG_ERROR);
  for (_CameraParam param : {_CameraParam{640, 481, 2, 0}, _CameraParam{640, 480, 3, 0}, _CameraParam{0, 0, 0, 0}}) {
    EXPECT_LT(CamSetParam("test", &param), 0);
  }
  EXPECT_EQ(log.Count("has no pictures of"), 3U);
  _CameraParam large{1280, 720, 2, 0};
  EXPECT_EQ(CamSetParam("test", &large), 0);
  Stream stream("test");
  const auto pictures = stream.Await(2);
  EXPECT_THAT(pictures[0], SizeIs(1280 * 720 * 2));
  EXPECT_NE(pictures[0], pictures[1]);
  EXPECT_LT(CamSetParam("test", &large), 0) << "is streaming";
  EXPECT_LT(CamStreamOn("test"), 0) << "is streaming";
}

TEST(Capture, StreamOffComesBeforeItsStreamOn) {
  const Opened camera("test");
  EXPECT_EQ(CamStreamOff("test"), 0);
  EXPECT_EQ(CamStreamOn("test"), 0) << "at once";
  _CameraParam param{640, 480, 2, 0};
  EXPECT_EQ(CamSetParam("test", &param), 0);
  Stream stream("test");
  EXPECT_THAT(stream.Await(1), SizeIs(1));
}

TEST(Capture, StopsAndClosesAtOnceAtAnyMoment) {
  const MediaFile slow({.name = "veryslow.mkv", .perSecond = 1});
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 30; ++i) {
    const Opened camera(slow.Path());
    ASSERT_EQ(camera.result, 0);
    Stream stream(slow.Path());
    if (i % 3 == 0) {
      EXPECT_THAT(stream.Await(1), SizeIs(1));
    }
    if (i % 2 == 0) {
      CamClose(slow.Path().c_str());
    }
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5 * kSlowdown));
}

// The callback of the test below, and where it is.
struct Slow {
  test::Event entered;
  test::Event go;
  std::atomic<bool> left{false};
};

TEST(Capture, UnregisteringWaitsForTheRunningCallback) {
  for (const int how : {0, 1, 2}) {
    const Opened camera("test");
    Slow slow;
    CamSetStreamCallback(
        "test",
        [](unsigned char*, unsigned, void* context) {
          auto& self = *static_cast<Slow*>(context);
          self.entered.Set();
          EXPECT_TRUE(self.go.Wait());
          CamSetStreamCallback("test", nullptr,
                               nullptr);  // From the callback: does not wait for itself.
          self.left = true;
        },
        &slow);
    std::thread streamer([] { CamStreamOn("test"); });
    ASSERT_TRUE(slow.entered.Wait());
    std::thread ender([&] {
      how == 0   ? CamSetStreamCallback("test", nullptr, nullptr)
      : how == 1 ? static_cast<void>(CamStreamOff("test"))
                 : static_cast<void>(CamClose("test"));
      EXPECT_TRUE(slow.left);
    });
    std::this_thread::sleep_for(kNever);  // Only lets a fault show: the end must not come before the callback's.
    slow.go.Set();
    ender.join();
    CamStreamOff("test");
    streamer.join();
  }
}

TEST(Capture, MayBeEndedFromItsOwnCallback) {
  for (const bool close : {false, true}) {
    ASSERT_EQ(CamOpen("test"), 0);
    CamSetStreamCallback(
        "test",
        close ? [](unsigned char*, unsigned, void*) { CamClose("test"); }
              : [](unsigned char*, unsigned, void*) { CamStreamOff("test"); },
        nullptr);
    EXPECT_EQ(CamStreamOn("test"), 0);
    CamClose("test");
  }
  const Opened again("test");
  EXPECT_EQ(again.result, 0);
}

TEST(Capture, WithoutAnOpenCameraFails) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  _CameraParam param{};
  EXPECT_LT(CamStreamOn("shut"), 0);
  EXPECT_LT(CamStreamOff("shut"), 0);
  EXPECT_LT(CamSetParam("shut", &param), 0);
  EXPECT_LT(CamClose("shut"), 0);
  CamSetStreamCallback("shut", nullptr, nullptr);
  EXPECT_EQ(log.Count("camera \"shut\": is not open"), 3U);
}

TEST(Worker, CallsItsFunctionOnceAndIsNotWaitedFor) {
  EXPECT_EQ(CreatQtWorker(nullptr, nullptr, nullptr), nullptr);
  EXPECT_LT(StartQtWroker(nullptr), 0);
  QuitQtWroker(nullptr);
  Slow slow;
  CamWorker* worker = CreatQtWorker(
      nullptr,
      [](void* context) {
        auto& self = *static_cast<Slow*>(context);
        self.entered.Set();
        EXPECT_TRUE(self.go.Wait());
        self.left = true;
      },
      &slow);
  EXPECT_EQ(StartQtWroker(worker), 0);
  EXPECT_LT(StartQtWroker(worker), 0);
  ASSERT_TRUE(slow.entered.Wait());
  QuitQtWroker(worker);
  EXPECT_FALSE(slow.left);
  slow.go.Set();
  while (!slow.left) {
    std::this_thread::yield();
  }
  QuitQtWroker(CreatQtWorker(
      nullptr, [](void*) { FAIL(); }, nullptr));
}

}  // namespace
}  // namespace vel
