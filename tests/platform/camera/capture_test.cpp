// The capture library over files and its test picture.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string_view>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "oskelo/camera.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "support/Limits.h"

namespace vel {
namespace {

using ::testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr const char* kSilent = "udp://127.0.0.1:0";  // Waits for a sender; there is none.

bool Quiet() noexcept {
  oskeloLogSetLevel(OSKELO_LOG_OFF);  // Until a test takes the log down.
  av_log_set_level(AV_LOG_QUIET);
  return true;
}
const bool gQuiet = Quiet();

// 5 pictures of 16x16 in HuffYUV, the third of which cannot be decoded.
Bytes Damaged() {
  std::ifstream file(DAMAGED_VIDEO, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The luma of picture n is n + 16 everywhere, the chroma 100 and 200.
struct Video {
  const char* chroma = "422";
  int width = 64;
  int height = 48;
  int pictures = 5;
  int perSecond = 50;

  // As YUV4MPEG2, uncompressed.
  Bytes Write() const {
    const std::string header = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) + " F" +
                               std::to_string(perSecond) + ":1 C" + chroma + "\n";
    const std::string_view mark = "FRAME\n";
    Bytes bytes(header.begin(), header.end());
    const int chromaRows = std::string_view(chroma) == "422" ? height : (height + 1) / 2;
    for (int n = 0; n < pictures; ++n) {
      bytes.insert(bytes.end(), mark.begin(), mark.end());
      for (int plane = 0; plane < 3; ++plane) {
        const int samples = plane == 0 ? width * height : (width + 1) / 2 * chromaRows;
        bytes.resize(bytes.size() + static_cast<std::size_t>(samples),
                     static_cast<std::uint8_t>(plane == 0 ? n + 16 : 100 * plane));
      }
    }
    return bytes;
  }
};

// Deleted with the test that made it.
struct MediaFile {
  explicit MediaFile(const Bytes& bytes)
      : path((std::filesystem::temp_directory_path() / ("capture_test_" + std::to_string(std::random_device()())))
                 .string()) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  }
  MediaFile(const MediaFile&) = delete;
  MediaFile& operator=(const MediaFile&) = delete;
  ~MediaFile() { std::filesystem::remove(path); }

  const std::string path;
};

// An opened camera, whose stream runs on a thread of its own.
class Camera {
 public:
  explicit Camera(std::string id) : opened(CamOpen(id.c_str())), mId(std::move(id)) {}
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;
  ~Camera() {
    Stop();
    CamSetStreamCallback(mId.c_str(), nullptr, nullptr);
    CamClose(mId.c_str());
  }
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
  void Start() {
    const auto take = [](unsigned char* data, unsigned length, void* context) {
      static_cast<Camera*>(context)->pictures.Add(Bytes(data, data + length));
    };
    CamSetStreamCallback(mId.c_str(), take, this);
    mThread = std::thread([this] { result = CamStreamOn(mId.c_str()); });
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

  const int opened;
  Collected<Bytes> pictures;
  std::atomic<int> result{99};  // Of the stream.

 private:
  const std::string mId;
  std::thread mThread;
};

Bytes Yuyv(int luma, int width, int height) {
  Bytes picture;
  for (int i = 0; i < width * height; ++i) {
    picture.push_back(static_cast<std::uint8_t>(luma));
    picture.push_back(i % 2 == 0 ? 100 : 200);
  }
  return picture;
}

TEST(Capture, PlaysAVideoFromTheStartAgainAndAgain) {
  for (const Video& kind : {Video{}, Video{.chroma = "420jpeg", .width = 65, .height = 33}, Video{.pictures = 1}}) {
    SCOPED_TRACE(kind.width * kind.pictures);
    const MediaFile file(kind.Write());
    Camera camera(file.path);
    const int width = kind.width / 2 * 2;
    EXPECT_EQ(camera.Params(), std::to_string(width) + "x" + std::to_string(kind.height) + " 2;");
    camera.Start();
    const std::vector<Bytes> pictures = camera.pictures.Await(11);
    for (std::size_t n = 0; n < 11; ++n) {
      EXPECT_EQ(pictures[n], Yuyv(16 + static_cast<int>(n) % kind.pictures, width, kind.height)) << n;
    }
    camera.Stop();
    EXPECT_EQ(camera.result, 0);
  }
}

TEST(Capture, HandsOutMjpegAsItIs) {
  std::ifstream jpeg(JPEG_PICTURE, std::ios::binary);
  const Bytes picture(std::istreambuf_iterator<char>(jpeg), {});
  std::vector<Bytes> pictures;
  Bytes bytes;
  for (std::uint8_t n = 0; n < 10; ++n) {
    const Bytes comment = {0xFF, 0xFE, 0, 3, static_cast<std::uint8_t>(n % 5)};
    pictures.push_back(picture);
    pictures.back().insert(pictures.back().begin() + 2, comment.begin(), comment.end());
    bytes.insert(bytes.end(), n < 5 ? pictures[n].begin() : pictures[n].end(), pictures[n].end());
  }
  const MediaFile file(bytes);
  Camera camera(file.path);
  EXPECT_EQ(camera.Params(), "64x48 3;");
  camera.Start();
  EXPECT_EQ(camera.pictures.Await(10), pictures) << "twice";
}

TEST(Capture, KeepsTheRateOfTheFile) {
  const MediaFile file(Video{.perSecond = 20}.Write());
  Camera camera(file.path);
  const auto start = Clock::now();
  camera.Start();
  camera.pictures.Await(13);  // Two rounds and a half: 12 intervals of 50 ms.
  const auto took = Clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(575));
  EXPECT_LT(took, std::chrono::seconds(6 * kSlowdown)) << "half a second for each";
}

TEST(Capture, SaysWhatIsWrongWithABadSource) {
  const std::string folder = std::filesystem::temp_directory_path().string();
  const Bytes damaged = Damaged();
  const MediaFile cut(Bytes(damaged.begin(), damaged.begin() + 40));
  const MediaFile none(Video{.pictures = 0}.Write());
  const std::pair<std::string, const char*> sources[] = {
      {folder + "/there is none.mp4", "none.mp4\": No such file or directory"},
      {folder, "is not a file"},
      {"/dev/video250", "No such file or directory"},
      {"nosuchprotocol://host/x", "Protocol not found"},
      {kSilent, "gave nothing in time"},
      {cut.path, "is empty or cut short"},
      {none.path, "has no picture that can be read"}};
  for (const auto& [source, error] : sources) {
    SCOPED_TRACE(source);
    const CapturingLog log(OSKELO_LOG_ERROR);
    const auto start = Clock::now();
    EXPECT_LT(CamOpen(source.c_str()), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));  // One waits for a few.
    EXPECT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Count(error), 1U);
    EXPECT_LT(CamStreamOn(source.c_str()), 0);
  }
}

TEST(Capture, GoesOnBehindABrokenPictureAndEndsWhenTheFileVanishes) {
  const MediaFile file(Damaged());
  const CapturingLog log(OSKELO_LOG_ERROR);
  Camera camera(file.path);
  camera.Start();
  const std::vector<Bytes> pictures = camera.pictures.Await(12);
  for (const int whole : {0, 1, 3, 4}) {
    EXPECT_GE(std::count(pictures.begin(), pictures.end(), Yuyv(16 + whole, 16, 16)), 2) << whole;
  }
  std::filesystem::remove(file.path);
  camera.Join();
  EXPECT_EQ(camera.result, -1);
  EXPECT_EQ(log.Count("No such file or directory"), 1U);
}

TEST(Capture, EndsAnOpeningThatIsClosed) {
  const CapturingLog log(OSKELO_LOG_ERROR);
  std::atomic<int> result{0};
  std::thread opener([&] { result = CamOpen(kSilent); });
  while (CamClose(kSilent) < 0 && result == 0) {
    std::this_thread::yield();  // Until it is being opened.
  }
  opener.join();
  EXPECT_LT(result, 0);
  EXPECT_EQ(log.Count("closed while it was being opened"), 1U);
}

TEST(Capture, ChoosesOnlyWhatIsListed) {
  Camera camera("test");
  for (_CameraParam param : {_CameraParam{640, 481, 2, 0}, _CameraParam{640, 480, 3, 0}}) {
    EXPECT_LT(CamSetParam("test", &param), 0);
  }
  _CameraParam large{1280, 720, 2, 0};
  EXPECT_EQ(CamSetParam("test", &large), 0);
  camera.Start();
  const auto pictures = camera.pictures.Await(2);
  EXPECT_THAT(pictures[0], SizeIs(1280 * 720 * 2));
  EXPECT_NE(pictures[0], pictures[1]);
  EXPECT_LT(CamOpen("test"), 0) << "is open";
  EXPECT_LT(CamSetParam("test", &large), 0) << "is streaming";
  EXPECT_LT(CamStreamOn("test"), 0) << "is streaming";
  camera.Stop();
  EXPECT_EQ(CamSetParam("test", &large), 0);
  EXPECT_EQ(CamStreamOff("test"), 0);
  EXPECT_EQ(CamStreamOn("test"), 0) << "at once: its end came before it";
}

TEST(Capture, StopsAndClosesAtOnceAtAnyMoment) {
  const MediaFile slow(Video{.perSecond = 1}.Write());
  const auto start = Clock::now();
  for (int i = 0; i < 30; ++i) {
    Camera camera(slow.path);
    ASSERT_EQ(camera.opened, 0);
    camera.Start();
    if (i % 3 == 0) {
      EXPECT_THAT(camera.pictures.Await(1), SizeIs(1));
    }
    if (i % 2 == 0) {
      CamClose(slow.path.c_str());
    }
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(9 * kSlowdown)) << "a second for many";
}

// The callback of the test below, and where it is.
struct Slow {
  Collected<int> entered;
  Collected<int> go;
  std::atomic<bool> left{false};
};

TEST(Capture, UnregisteringWaitsForTheRunningCallback) {
  for (const int how : {0, 1, 2}) {
    const Camera camera("test");
    Slow slow;
    CamSetStreamCallback(
        "test",
        [](unsigned char*, unsigned, void* context) {
          auto& self = *static_cast<Slow*>(context);
          self.entered.Add(1);
          EXPECT_THAT(self.go.Await(1), SizeIs(1));
          CamSetStreamCallback("test", nullptr, nullptr);  // From the callback: does not wait for itself.
          self.left = true;
        },
        &slow);
    std::thread streamer([] { CamStreamOn("test"); });
    ASSERT_THAT(slow.entered.Await(1), SizeIs(1));
    std::thread ender([&] {
      if (how == 0) CamSetStreamCallback("test", nullptr, nullptr);
      if (how == 1) CamStreamOff("test");
      if (how == 2) CamClose("test");
      EXPECT_TRUE(slow.left);
    });
    std::this_thread::sleep_for(kNever);  // Only lets a fault show: the end must not come before the callback's.
    slow.go.Add(1);
    ender.join();
    CamStreamOff("test");
    streamer.join();
  }
}

TEST(Capture, MayBeEndedFromItsOwnCallback) {
  for (const CamStreamCallback end :
       {CamStreamCallback([](unsigned char*, unsigned, void*) { CamClose("test"); }),
        CamStreamCallback([](unsigned char*, unsigned, void*) { CamStreamOff("test"); })}) {
    const Camera camera("test");
    CamSetStreamCallback("test", end, nullptr);
    EXPECT_EQ(CamStreamOn("test"), 0);
  }
}

}  // namespace
}  // namespace vel
