#include "io/DummyUsbIo/DummyCamera.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <numeric>

#include "base/VelLog.h"

namespace vel {
namespace {

constexpr std::chrono::milliseconds kBetweenPictures(30);
constexpr std::uint32_t kMaxSide = 8192;  // Pixels, as everywhere in the camera classes.
constexpr std::uint32_t kYuy2 = 2;
constexpr std::uint32_t kCameras = 3;
constexpr char kName[] = "Dummy Camera";

}  // namespace

std::atomic<std::uint32_t> DummyCamera::mFrameNumber{0};

DummyCamera::~DummyCamera() {
  VEL_DEBUG("");
  StreamOff();
  if (mProducer.joinable()) {  // Stopped from its own thread before.
    mProducer.join();
  }
}

int DummyCamera::GetCameraList(std::vector<_CameraInfo>& list) {
  for (std::uint32_t index = 0; index < kCameras; ++index) {
    _CameraInfo& info = list.emplace_back();
    info.index = index;
    std::memcpy(info.name, kName, sizeof(kName));
    info.available = 1;
  }
  return 0;
}

int DummyCamera::GetParamList(_CameraParam** list, int* count) {
  *list = new _CameraParam[2]{{640, 480, kYuy2, 0}, {1280, 720, kYuy2, 0}};
  *count = 2;
  return 0;
}

int DummyCamera::Open(const std::string& /*id*/) {
  VEL_DEBUG("");
  return 0;
}

int DummyCamera::Close() {
  VEL_DEBUG("");
  return 0;
}

int DummyCamera::SetParam(_CameraParam* param) {
  if (param->width > kMaxSide || param->height > kMaxSide) {
    return -1;
  }
  const MutexLock lock(mMutex);
  mWidth = param->width;
  mHeight = param->height;
  return 0;
}

int DummyCamera::StreamOn() {
  {
    const MutexLock lock(mMutex);
    if (!mStopped) {
      VEL_DEBUG("already start");
      return 0;
    }
  }
  if (mProducer.joinable()) {
    if (IsProducer()) {
      return -1;  // It has to end first.
    }
    mProducer.join();
  }
  {
    const MutexLock lock(mMutex);
    mStopped = false;
  }
  try {
    mProducer = std::thread(&DummyCamera::FrameHandler, this);
  } catch (const std::exception&) {
    const MutexLock lock(mMutex);
    mStopped = true;
    return -1;
  }
  return 0;
}

int DummyCamera::StreamOff() {
  {
    const MutexLock lock(mMutex);
    if (mStopped) {
      return -1;
    }
    mStopped = true;
    mChanged.NotifyAll();
  }
  if (!IsProducer()) {
    mProducer.join();
  }
  {
    const MutexLock lock(mMutex);
    mPending = 0;
  }
  VEL_DEBUG("done");
  return 0;
}

int DummyCamera::GetCurrentFrame(std::uint8_t** /*data*/, std::uint32_t* /*length*/) {
  VEL_DEBUG("");
  return 0;
}

int DummyCamera::SetStreamCallback(CameraStreamCallback* callback, void* context) {
  const MutexLock lock(mMutex);
  mCallback = callback;
  mContext = context;
  if (mPending++ == 0) {
    mChanged.NotifyAll();
  }
  return 0;
}

int DummyCamera::EnableDebug(bool /*enable*/) {
  VEL_DEBUG("");
  return 0;
}

int DummyCamera::GetParam(_CameraParam* /*param*/) {
  VEL_DEBUG("");
  return 0;
}

int DummyCamera::ProbeParam(_CameraParam* /*param*/) {
  VEL_DEBUG("");
  return 0;
}

void DummyCamera::FrameHandler() {
  VEL_DEBUG("Camera thread in!");
  std::vector<std::uint8_t> picture;  // Kept, since a fresh block of this size costs more than the picture.
  VEL_DEBUG("Camera thread run!");
  while (AwaitRequest()) {
    DeliverPicture(picture);
  }
  VEL_DEBUG("Camera thread out!");
}

bool DummyCamera::AwaitRequest() {
  MutexLock lock(mMutex);
  while (mPending <= 0 && !mStopped) {
    mChanged.Wait(lock);
  }
  const auto due = std::chrono::steady_clock::now() + kBetweenPictures;
  while (!mStopped && std::chrono::steady_clock::now() < due) {
    mChanged.WaitUntil(lock, due);
  }
  if (mStopped) {
    return false;
  }
  --mPending;
  return true;
}

void DummyCamera::DeliverPicture(std::vector<std::uint8_t>& picture) {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  {
    const MutexLock lock(mMutex);
    width = mWidth;
    height = mHeight;
  }
  try {
    picture.resize(std::size_t{2} * width * height);
    Paint(picture, width, height, mFrameNumber.fetch_add(1, std::memory_order_relaxed));
  } catch (const std::bad_alloc&) {
    VEL_ERROR("no memory for a picture of %ux%u", width, height);
    picture.clear();  // An empty one is delivered, so that who waits asks again.
  }
  CameraStreamCallback* callback = nullptr;
  void* context = nullptr;
  {
    const MutexLock lock(mMutex);  // Of whoever asks now: it may have changed while the picture was painted.
    callback = mCallback;
    context = mContext;
  }
  if (callback != nullptr) {
    callback->CameraStreamCb(picture.data(), static_cast<std::uint32_t>(picture.size()), context);
  }
}

void DummyCamera::Paint(std::span<std::uint8_t> picture, std::uint32_t width, std::uint32_t height, std::uint32_t n) {
  if (width == 0 || height == 0) {
    return;
  }
  // Bytes that count up: every row that does so is a piece of them.
  static constexpr std::size_t kPeriod = 256;
  std::vector<std::uint8_t> ramp(width + kPeriod);
  std::iota(ramp.begin(), ramp.end(), std::uint8_t{0});
  const std::size_t plane = std::size_t{width} * height;
  for (std::uint32_t y = 0; y < height; ++y) {
    std::uint8_t* first = &picture[std::size_t{y} * width];
    std::uint8_t* second = first + plane;
    std::memcpy(first, &ramp[(y + 3 * n) % kPeriod], width);
    // Chosen by the width, not by the column, as remote sides know the pattern.
    if (width % 2 == 0) {
      std::memcpy(second, &ramp[(5 * n + 64) % kPeriod], width);
    } else {
      std::memset(second, static_cast<std::uint8_t>(y + 2 * n + 128), width);
    }
  }
}

}  // namespace vel
