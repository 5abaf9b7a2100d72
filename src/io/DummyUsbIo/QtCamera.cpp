#include "io/DummyUsbIo/QtCamera.h"

#include <chrono>
#include <system_error>
#include <utility>

#include "base/LockOrder.h"
#include "base/VelLog.h"

namespace vel {
namespace {

constexpr std::chrono::milliseconds kOpenLimit(3000);
constexpr std::chrono::milliseconds kStopLimit(1000);

}  // namespace

struct QtCamera::Opening {
  explicit Opening(std::string cameraId) : id(std::move(cameraId)) {}

  const std::string id;
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  CondVar changed;
  bool running VEL_GUARDED_BY(mutex) = true;  // The camera is wanted.
  bool done VEL_GUARDED_BY(mutex) = false;
  int result VEL_GUARDED_BY(mutex) = -1;
  std::shared_ptr<Opening> self VEL_GUARDED_BY(mutex);  // The worker's share, until its function takes it.

  void Finish(int withResult) VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    result = withResult;
    done = true;
    changed.NotifyAll();
  }
  void End() VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    running = false;
    changed.NotifyAll();
  }
};

struct QtCamera::Streaming {
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  CondVar changed;
  bool stopped VEL_GUARDED_BY(mutex) = false;
  bool ended VEL_GUARDED_BY(mutex) = false;
};

QtCamera::~QtCamera() {
  VEL_DEBUG("");
  StreamOff();
  if (mOpened) {
    Close();
  }
  ReleaseWorker();
  ReleaseStreamThread();
}

int QtCamera::GetCameraList(std::vector<_CameraInfo>& /*list*/) {
  VEL_DEBUG("");
  return 0;
}

int QtCamera::GetParamList(_CameraParam** list, int* count) {
  return CamGetParamList(mCameraId.c_str(), list, count);
}

int QtCamera::Open(const std::string& id) {
  if (mOpened) {
    return 0;
  }
  ReleaseWorker();
  mCameraId = id;
  mOpening = std::make_shared<Opening>(id);
  try {
    mOpenThread = std::thread([opening = mOpening] { HoldWorker(opening); });
  } catch (const std::system_error&) {
    VEL_ERROR("Open camera[%d], failed.", -1);
    return -1;
  }
  bool done = false;
  int result = -1;
  {
    const auto deadline = std::chrono::steady_clock::now() + kOpenLimit;
    MutexLock lock(mOpening->mutex);
    while (!mOpening->done && mOpening->changed.WaitUntil(lock, deadline)) {
    }
    done = mOpening->done;
    result = mOpening->result;
    mOpening->running = done;
  }
  mOpened = done && result >= 0;
  if (mOpened) {
    return 0;
  }
  if (!done) {
    Close();
  }
  ReleaseWorker();
  VEL_ERROR("Open camera[%d], failed.", result);
  return -1;
}

// The open thread.
void QtCamera::HoldWorker(const std::shared_ptr<Opening>& opening) {
  {
    const MutexLock lock(opening->mutex);
    opening->self = opening;
  }
  CamWorker* worker = CreatQtWorker(nullptr, &OpenCamera, opening.get());
  if (worker == nullptr || StartQtWroker(worker) < 0) {
    opening->Finish(-1);
    const MutexLock lock(opening->mutex);
    opening->self.reset();
  }
  {
    MutexLock lock(opening->mutex);
    while (opening->running) {
      opening->changed.Wait(lock);
    }
  }
  if (worker != nullptr) {
    QuitQtWroker(worker);
  }
}

// The worker's thread. No lock is held while the library opens: a camera may take its time.
void QtCamera::OpenCamera(void* context) {
  if (context == nullptr) {
    VEL_DEBUG("userData error\n");
    return;
  }
  std::shared_ptr<Opening> opening;
  {
    auto* given = static_cast<Opening*>(context);
    const MutexLock lock(given->mutex);
    opening = std::move(given->self);
  }
  const int result = CamOpen(opening->id.c_str());
  if (result < 0) {
    VEL_ERROR("open camera failed, ret[%d]", result);
  }
  bool wanted = false;
  {
    const MutexLock lock(opening->mutex);
    wanted = opening->running;
    opening->result = result;
    opening->done = true;
    opening->changed.NotifyAll();
  }
  if (result >= 0 && !wanted) {
    CamClose(opening->id.c_str());
  }
  VEL_DEBUG("Open camera[%s] finish.", EscapeForLog(opening->id).c_str());
}

int QtCamera::Close() {
  // Also for a camera that is still being opened. Not for one that could not be: the id may be another's.
  if (mOpening != nullptr) {
    CamClose(mCameraId.c_str());
  }
  ReleaseWorker();
  mOpened = false;
  return 0;
}

void QtCamera::ReleaseWorker() {
  if (mOpening != nullptr) {
    mOpening->End();
    mOpening.reset();
  }
  if (mOpenThread.joinable()) {
    mOpenThread.join();
  }
}

int QtCamera::SetParam(_CameraParam* param) {
  _CameraParam copy = *param;
  return CamSetParam(mCameraId.c_str(), &copy);
}

int QtCamera::StreamOn() {
  if (!mStopped) {
    const MutexLock lock(mStreaming->mutex);
    if (!mStreaming->ended) {
      VEL_DEBUG("already start");
      return 0;
    }
  }
  ReleaseStreamThread();
  mStreaming = std::make_shared<Streaming>();
  try {
    mStreamThread = std::thread([streaming = mStreaming, id = mCameraId] { Capture(*streaming, id); });
  } catch (const std::system_error&) {
    mStopped = true;
    return -1;
  }
  mStopped = false;
  return 0;
}

// The stream thread.
void QtCamera::Capture(Streaming& streaming, const std::string& id) {
  bool wanted = false;
  {
    const MutexLock lock(streaming.mutex);
    wanted = !streaming.stopped;
  }
  if (wanted) {
    [[maybe_unused]] const int result = CamStreamOn(id.c_str());
    VEL_DEBUG("StreamOn ret[%d]", result);
  }
  const MutexLock lock(streaming.mutex);
  streaming.ended = true;
  streaming.changed.NotifyAll();
}

int QtCamera::StreamOff() {
  if (mStopped) {
    return -1;
  }
  mStopped = true;
  {
    const MutexLock lock(mStreaming->mutex);
    mStreaming->stopped = true;
  }
  CamStreamOff(mCameraId.c_str());
  if (mStreamThread.get_id() != std::this_thread::get_id()) {
    const auto deadline = std::chrono::steady_clock::now() + kStopLimit;
    {
      MutexLock lock(mStreaming->mutex);
      while (!mStreaming->ended && mStreaming->changed.WaitUntil(lock, deadline)) {
      }
    }
    ReleaseStreamThread();
  }
  return 0;
}

void QtCamera::ReleaseStreamThread() {
  if (!mStreamThread.joinable()) {
    return;
  }
  bool ended = false;
  {
    const MutexLock lock(mStreaming->mutex);
    ended = mStreaming->ended;
  }
  if (ended) {
    mStreamThread.join();
  } else {
    mStreamThread.detach();
  }
}

int QtCamera::GetCurrentFrame(std::uint8_t** /*data*/, std::uint32_t* /*length*/) {
  VEL_DEBUG("");
  return 0;
}

int QtCamera::SetStreamCallback(CameraStreamCallback* /*callback*/, void* /*context*/) {
  return 0;
}

int QtCamera::EnableDebug(bool /*enable*/) {
  VEL_DEBUG("");
  return 0;
}

int QtCamera::GetParam(_CameraParam* /*param*/) {
  VEL_DEBUG("");
  return 0;
}

int QtCamera::ProbeParam(_CameraParam* /*param*/) {
  VEL_DEBUG("");
  return 0;
}

}  // namespace vel
