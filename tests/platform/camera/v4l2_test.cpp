// Capture devices, on a kernel of the test's own.
#include <gmock/gmock.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <thread>
#include <utility>

#include "V4l2Source.h"
#include "support/CapturingLog.h"
#include "support/Collected.h"
#include "vel/Mutex.h"

namespace oskelo {
namespace {

using ::testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

struct Size {
  std::uint32_t width;
  std::uint32_t height;
};

// A camera as the test wants it. It outlives its device.
struct FakeCamera {
  std::vector<std::pair<std::uint32_t, std::vector<Size>>> formats = {{V4L2_PIX_FMT_YUYV, {{4, 2}, {8, 2}}}};
  std::uint32_t rowPadding = 0;
  unsigned long failing = 0;  // The request that fails.

  vel::Mutex mutex;
  vel::CondVar changed;
  std::deque<Bytes> pictures VEL_GUARDED_BY(mutex);  // To come; an empty one is broken.
  bool unplugged VEL_GUARDED_BY(mutex) = false;
  bool woken VEL_GUARDED_BY(mutex) = false;
  std::deque<std::uint32_t> queued VEL_GUARDED_BY(mutex);
  int mapped VEL_GUARDED_BY(mutex) = 0;
  std::vector<Bytes> memory = std::vector<Bytes>(4, Bytes(64));

  void Give(Bytes picture) {
    const vel::MutexLock lock(mutex);
    pictures.push_back(std::move(picture));
    changed.NotifyAll();
  }
  void Unplug() {
    const vel::MutexLock lock(mutex);
    unplugged = true;
    changed.NotifyAll();
  }
};

class FakeDevice final : public V4l2Device {
 public:
  explicit FakeDevice(FakeCamera& camera) : mCamera(camera) {}

  int Ioctl(unsigned long request, void* argument) override {
    const vel::MutexLock lock(mCamera.mutex);
    if (request == mCamera.failing) {
      return -EBUSY;
    }
    auto& buffer = *static_cast<v4l2_buffer*>(argument);  // Where it is one.
    switch (request) {
      case VIDIOC_QUERYCAP:
        static_cast<v4l2_capability*>(argument)->capabilities = V4L2_CAP_DEVICE_CAPS;
        static_cast<v4l2_capability*>(argument)->device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
        return 0;
      case VIDIOC_ENUM_FMT: {
        auto& format = *static_cast<v4l2_fmtdesc*>(argument);
        if (format.index >= mCamera.formats.size()) {
          return -EINVAL;
        }
        format.pixelformat = mCamera.formats[format.index].first;
        return 0;
      }
      case VIDIOC_ENUM_FRAMESIZES:
        return EnumSize(*static_cast<v4l2_frmsizeenum*>(argument));
      case VIDIOC_S_FMT: {
        auto& pix = static_cast<v4l2_format*>(argument)->fmt.pix;
        pix.bytesperline = 2 * pix.width + mCamera.rowPadding;
        return 0;
      }
      case VIDIOC_QUERYBUF:
        buffer.length = 64;
        buffer.m.offset = buffer.index;
        return 0;
      case VIDIOC_QBUF:
        mCamera.queued.push_back(buffer.index);
        return 0;
      case VIDIOC_DQBUF:
        return Dequeue(buffer);
      case VIDIOC_STREAMOFF:
        mCamera.queued.clear();
        return 0;
      default:
        return request == VIDIOC_REQBUFS || request == VIDIOC_STREAMON ? 0 : -EINVAL;
    }
  }
  void* Map(std::size_t /*length*/, std::uint32_t offset) override {
    const vel::MutexLock lock(mCamera.mutex);
    ++mCamera.mapped;
    return mCamera.memory[offset].data();
  }
  void Unmap(void* /*memory*/, std::size_t /*length*/) override {
    const vel::MutexLock lock(mCamera.mutex);
    --mCamera.mapped;
  }
  Event Wait() override {
    vel::MutexLock lock(mCamera.mutex);
    while (!mCamera.woken && mCamera.pictures.empty() && !mCamera.unplugged) {
      mCamera.changed.Wait(lock);
    }
    return mCamera.woken ? Event::kWoken : Event::kPicture;
  }
  void Wake() override { SetWoken(true); }
  void ClearWake() override { SetWoken(false); }

 private:
  void SetWoken(bool woken) {
    const vel::MutexLock lock(mCamera.mutex);
    mCamera.woken = woken;
    mCamera.changed.NotifyAll();
  }
  int EnumSize(v4l2_frmsizeenum& entry) {
    for (const auto& [fourcc, sizes] : mCamera.formats) {
      if (fourcc == entry.pixel_format && entry.index < sizes.size()) {
        entry.type = V4L2_FRMSIZE_TYPE_DISCRETE;
        entry.discrete = {sizes[entry.index].width, sizes[entry.index].height};
        return 0;
      }
    }
    return -EINVAL;
  }
  int Dequeue(v4l2_buffer& buffer) VEL_REQUIRES(mCamera.mutex) {
    if (mCamera.unplugged) {
      return -ENODEV;
    }
    if (mCamera.pictures.empty() || mCamera.queued.empty()) {
      return -EAGAIN;
    }
    const Bytes picture = std::move(mCamera.pictures.front());
    mCamera.pictures.pop_front();
    buffer.index = mCamera.queued.front();
    mCamera.queued.pop_front();
    buffer.flags = picture.empty() ? V4L2_BUF_FLAG_ERROR : 0;
    buffer.bytesused = static_cast<std::uint32_t>(picture.size());
    std::copy_n(picture.begin(), std::min<std::size_t>(picture.size(), 64), mCamera.memory[buffer.index].begin());
    return 0;
  }

  FakeCamera& mCamera;
};

struct Pictures final : PictureSink {
  void OnPicture(std::span<std::uint8_t> picture) override { got.Add(Bytes(picture.begin(), picture.end())); }
  std::vector<Bytes> Await(std::size_t n) { return got.Await(n); }
  vel::Collected<Bytes> got;
};

std::unique_ptr<V4l2Source> Make(FakeCamera& camera) {
  return V4l2Source::Create("/dev/video9", std::make_unique<FakeDevice>(camera));
}

std::string ParamsOf(FakeCamera& camera) {
  std::string text;
  if (const auto source = Make(camera)) {
    for (const _CameraParam& param : source->Params()) {
      text += std::to_string(param.width) + "x" + std::to_string(param.height) + " " +
              std::to_string(param.pixelFormat) + ";";
    }
  }
  return text;
}

TEST(V4l2, ListsWhatTheDeviceHas) {
  const vel::CapturingLog log(OSKELO_LOG_ERROR);
  FakeCamera camera;
  camera.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}},
                    {V4L2_PIX_FMT_MJPEG, {{1280, 720}, {641, 480}}},
                    {V4L2_PIX_FMT_YUYV, {{641, 480}, {640, 480}, {9000, 2}, {0, 0}}}};
  EXPECT_EQ(ParamsOf(camera), "1280x720 3;641x480 3;640x480 2;");
  EXPECT_TRUE(log.Lines().empty());
  camera.formats = {{V4L2_PIX_FMT_NV12, {{640, 480}}}};
  EXPECT_EQ(ParamsOf(camera), "");
  EXPECT_EQ(log.Count("has neither YUYV nor MJPEG pictures"), 1U);
}

TEST(V4l2, DeliversWholePicturesWithoutPadding) {
  for (const std::uint32_t padding : {0U, 3U}) {
    FakeCamera camera;
    camera.rowPadding = padding;
    const auto source = Make(camera);
    ASSERT_NE(source, nullptr);
    Pictures pictures;
    std::thread stream([&] { EXPECT_TRUE(source->Stream(pictures)); });
    Bytes raw;
    Bytes expected;
    for (std::uint8_t row = 0; row < 2; ++row) {
      for (std::uint8_t i = 0; i < 8; ++i) {
        raw.push_back(static_cast<std::uint8_t>(16 * row + i));
      }
      expected.insert(expected.end(), raw.end() - 8, raw.end());
      raw.resize(raw.size() + padding, 0xEE);
    }
    camera.Give(raw);
    camera.Give({});         // Marked as broken.
    camera.Give({1, 2, 3});  // Cut short.
    for (int i = 0; i < 8; ++i) {
      camera.Give(raw);  // More than there are buffers: they are given back.
    }
    EXPECT_EQ(pictures.Await(9), std::vector<Bytes>(9, expected));
    source->Stop();
    stream.join();
    EXPECT_TRUE(source->Stream(pictures)) << "stopped until armed";
    const vel::MutexLock lock(camera.mutex);
    EXPECT_EQ(camera.mapped, 0);
  }
}

TEST(V4l2, DeliversMjpegAsItIsUntilItIsUnplugged) {
  const vel::CapturingLog log(OSKELO_LOG_ERROR);
  FakeCamera camera;
  camera.formats = {{V4L2_PIX_FMT_MJPEG, {{640, 480}}}};
  const auto source = Make(camera);
  Pictures pictures;
  std::thread stream([&] { EXPECT_FALSE(source->Stream(pictures)); });
  camera.Give({0xFF, 0xD8, 1});
  camera.Give(Bytes(100, 7));  // Longer than the buffer that it claims to fill.
  EXPECT_THAT(pictures.Await(2), ElementsAre(Bytes{0xFF, 0xD8, 1}, Bytes(64, 7)));
  camera.Unplug();
  stream.join();
  EXPECT_EQ(log.Count("camera \"/dev/video9\": stopped capturing: it was unplugged"), 1U);
}

TEST(V4l2, ReportsEachStepThatFails) {
  for (const unsigned long step : {VIDIOC_QUERYCAP, VIDIOC_S_FMT, VIDIOC_QBUF, VIDIOC_STREAMON, VIDIOC_DQBUF}) {
    const vel::CapturingLog log(OSKELO_LOG_ERROR);
    FakeCamera camera;
    camera.failing = step;
    camera.Give(Bytes(16, 1));
    Pictures pictures;
    if (const auto source = Make(camera)) {
      EXPECT_FALSE(source->Stream(pictures));
    }
    EXPECT_EQ(log.Lines().size(), 1U) << step;
    const vel::MutexLock lock(camera.mutex);
    EXPECT_EQ(camera.mapped, 0);
  }
}

}  // namespace
}  // namespace oskelo
