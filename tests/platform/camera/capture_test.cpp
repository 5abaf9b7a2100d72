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
#include "support/Collected.h"
#include "support/Limits.h"

namespace vel {
namespace {

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
  std::vector<Bytes> Await(std::size_t n) { return pictures.Await(n); }

  Collected<Bytes> pictures;
  std::atomic<int> result{99};

 private:
  static void Take(unsigned char* data, unsigned length, void* context) {
    static_cast<Stream*>(context)->pictures.Add(Bytes(data, data + length));
  }

  const std::string mId;
  std::thread mThread;
};

// An opened camera.
class Opened {
 public:
  explicit Opened(std::string id) : result(CamOpen(id.c_str())), mId(std::move(id)) {}
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;
  ~Opened() { CamClose(mId.c_str()); }
  std::string Params() const {
    _CameraParam* list = nullptr;
    int count = 0;
    std::string text;
    EXPECT_EQ(CamGetParamList(mId.c_str(), &list, &count), 0);
    for (int i = 0; i < count; ++i) {
      text += std::to_string(list[i].width) + "x" + std::to_string(list[i].height) + " " +
              std::to_string(list[i].pixelFormat) + ";";
    }
    return text;
  }

  const int result;

 private:
  const std::string mId;
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
  EXPECT_LT(CamStreamOn(id.c_str()), 0);
  EXPECT_LT(CamStreamOff(id.c_str()), 0);
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
        MediaFile::Kind{.name = "odd.mkv", .format = AV_PIX_FMT_YUV420P, .width = 65, .height = 33}}) {
    SCOPED_TRACE(kind.name);
    const MediaFile file(kind);
    const Opened camera(file.Path());
    ASSERT_EQ(camera.result, 0);
    const int width = kind.width / 2 * 2;
    EXPECT_EQ(camera.Params(), std::to_string(width) + "x" + std::to_string(kind.height) + " 2;");
    Stream stream(file.Path());
    const std::vector<Bytes> pictures = stream.Await(11);
    for (std::size_t n = 0; n < 11; ++n) {
      EXPECT_EQ(pictures[n], Yuyv(16 + static_cast<int>(n) % kind.pictures, width, kind.height)) << n;
    }
    stream.Stop();
    EXPECT_EQ(stream.result, 0);
  }
}

TEST(Capture, HandsOutMjpegAsItIs) {
  const MediaFile file({.name = "m.avi", .codec = AV_CODEC_ID_MJPEG, .format = AV_PIX_FMT_YUVJ422P});
  const Opened camera(file.Path());
  EXPECT_EQ(camera.Params(), "64x48 3;");
  Stream stream(file.Path());
  std::vector<Bytes> twice = file.Packets();
  twice.insert(twice.end(), file.Packets().begin(), file.Packets().end());
  EXPECT_EQ(stream.Await(10), twice);
}

TEST(Capture, KeepsTheRateOfTheFile) {
  const MediaFile file({.name = "slow.mkv", .perSecond = 20});
  const Opened camera(file.Path());
  const auto start = std::chrono::steady_clock::now();
  Stream stream(file.Path());
  stream.Await(13);  // Two rounds and a half: 12 intervals of 50 ms.
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(575));
  EXPECT_LT(took, std::chrono::milliseconds(600 + 1000 * kSlowdown));
}

TEST(Capture, SaysWhatIsWrongWithABadSource) {
  const std::string folder = std::filesystem::temp_directory_path();
  const std::string pipe = folder + "/capture_test_pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const MediaFile none({.name = "none.mkv", .pictures = 0});
  const MediaFile garbage({.name = "garbage.mkv"});
  garbage.Spoil(0, 1000);
  const MediaFile broken({.name = "broken.avi", .pictures = 1});
  broken.SpoilPicture(0);
  const MediaFile cut({.name = "cut.avi"});
  std::filesystem::resize_file(cut.Path(), 300);
  const std::pair<std::string, const char*> sources[] = {
      {folder + "/there is none.mp4", "none.mp4\": No such file or directory"},
      {folder, "is not a file"},
      {"/dev/video250", "No such file or directory"},
      {pipe, "is not a file"},
      {"nosuchprotocol://host/x", "Protocol not found"},
      {none.Path(), "is empty or cut short"},
      {garbage.Path(), "Invalid data found"},
      {cut.Path(), ""},
      {broken.Path(), "has no picture that can be read"}};
  for (const auto& [source, error] : sources) {
    EXPECT_THAT(OpenError(source), HasSubstr(error));
  }
  std::filesystem::remove(pipe);
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
    EXPECT_EQ(camera.Params(), "640x480 2;1280x720 2;");
    EXPECT_LT(CamOpen(nullptr), 0) << "is open already";
  }
  unsetenv(OSKELO_CAMERA_SOURCE_VARIABLE);
}

TEST(Capture, ChoosesOnlyWhatIsListed) {
  const Opened camera("test");
  const CapturingLog log(OSKELO_LOG_ERROR);
  for (_CameraParam param : {_CameraParam{640, 481, 2, 0}, _CameraParam{640, 480, 3, 0}}) {
    EXPECT_LT(CamSetParam("test", &param), 0);
  }
  EXPECT_EQ(log.Count("has no pictures of"), 2U);
  _CameraParam large{1280, 720, 2, 0};
  EXPECT_EQ(CamSetParam("test", &large), 0);
  Stream stream("test");
  const auto pictures = stream.Await(2);
  EXPECT_THAT(pictures[0], SizeIs(1280 * 720 * 2));
  EXPECT_NE(pictures[0], pictures[1]);
  EXPECT_LT(CamSetParam("test", &large), 0) << "is streaming";
  EXPECT_LT(CamStreamOn("test"), 0) << "is streaming";
  stream.Stop();
  EXPECT_EQ(CamSetParam("test", &large), 0);
  EXPECT_EQ(CamStreamOff("test"), 0);
  EXPECT_EQ(CamStreamOn("test"), 0) << "at once: its end came before it";
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
          CamSetStreamCallback("test", nullptr, nullptr);  // From the callback: does not wait for itself.
          self.left = true;
        },
        &slow);
    std::thread streamer([] { CamStreamOn("test"); });
    ASSERT_TRUE(slow.entered.Wait());
    std::thread ender([&] {
      if (how == 0) CamSetStreamCallback("test", nullptr, nullptr);
      if (how == 1) CamStreamOff("test");
      if (how == 2) CamClose("test");
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
  for (const CamStreamCallback end :
       {CamStreamCallback([](unsigned char*, unsigned, void*) { CamClose("test"); }),
        CamStreamCallback([](unsigned char*, unsigned, void*) { CamStreamOff("test"); })}) {
    const Opened camera("test");
    ASSERT_EQ(camera.result, 0);
    CamSetStreamCallback("test", end, nullptr);
    EXPECT_EQ(CamStreamOn("test"), 0);
  }
}

}  // namespace
}  // namespace vel
