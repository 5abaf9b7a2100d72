#include "io/DummyUsbIo/QtCamera.h"

#include <chrono>
#include <utility>

#include "base/VelLog.h"

namespace vel {
namespace {

constexpr std::chrono::milliseconds kOpenLimit(3000);

}  // namespace

struct QtCamera::Opening {
  explicit Opening(std::string cameraId) : id(std::move(cameraId)) {}

  const std::string id;
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  CondVar changed;
  bool wanted VEL_GUARDED_BY(mutex) = true;
  bool done VEL_GUARDED_BY(mutex) = false;  // The library has answered.
  int result VEL_GUARDED_BY(mutex) = -1;
  bool returned VEL_GUARDED_BY(mutex) = false;  // The worker uses nothing of this any more.

  bool IsWanted() VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    return wanted;
  }
  // What the library said. Whether somebody still waits for it.
  bool Answer(int said) VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    result = wanted ? said : -1;
    done = true;
    changed.NotifyAll();
    return wanted;
  }
  void Return(int withResult) VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    if (!done) {
      result = withResult;
      done = true;
    }
    returned = true;
    changed.NotifyAll();
  }
  // Not once the library has answered.
  void GiveUp() VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    wanted = wanted && done;
    changed.NotifyAll();
  }
  void End() VEL_EXCLUDES(mutex) {
    const MutexLock lock(mutex);
    wanted = false;
    changed.NotifyAll();
  }
};

QtCamera::~QtCamera() {
  VEL_DEBUG("");
  StreamOff();
  Close();
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
  const auto opening = std::make_shared<Opening>(id);
  bool cancelled = false;
  {
    const MutexLock lock(mMutex);
    cancelled = mOpenCancelled;
    mOpening = opening;
  }
  if (cancelled || !mOpenThread.Start([opening] { HoldWorker(*opening); })) {
    VEL_ERROR("Open camera[%d], failed.", -1);
    return -1;
  }
  bool done = false;
  int result = -1;
  {
    const auto deadline = std::chrono::steady_clock::now() + kOpenLimit;
    MutexLock lock(opening->mutex);
    while (!opening->done && opening->wanted && opening->changed.WaitUntil(lock, deadline)) {
    }
    done = opening->done;
    result = opening->result;
    mOpened = done && result >= 0;
    opening->wanted = mOpened;
    opening->changed.NotifyAll();
  }
  if (mOpened) {
    return 0;
  }
  if (!done) {  // Not where it could not be opened: the id may be another's.
    CamClose(mCameraId.c_str());
  }
  VEL_ERROR("Open camera[%d], failed.", result);
  return -1;
}

void QtCamera::CancelOpen() {
  std::shared_ptr<Opening> opening;
  {
    const MutexLock lock(mMutex);
    mOpenCancelled = true;
    opening = mOpening;
  }
  if (opening != nullptr) {
    opening->GiveUp();
  }
}

// The open thread. It stays until the worker's function has left the module's code.
void QtCamera::HoldWorker(Opening& opening) {
  CamWorker* worker = CreatQtWorker(nullptr, &OpenCamera, &opening);
  if (worker == nullptr || StartQtWroker(worker) < 0) {
    opening.Return(-1);
  }
  {
    MutexLock lock(opening.mutex);
    while (opening.wanted) {
      opening.changed.Wait(lock);
    }
  }
  if (worker != nullptr) {
    QuitQtWroker(worker);
  }
  MutexLock lock(opening.mutex);
  while (!opening.returned) {
    opening.changed.Wait(lock);
  }
}

// The worker's thread. No lock is held while the library opens: a camera may take its time.
void QtCamera::OpenCamera(void* context) {
  if (context == nullptr) {
    VEL_DEBUG("userData error\n");
    return;
  }
  auto& opening = *static_cast<Opening*>(context);
  if (!opening.IsWanted()) {  // Given up before the library could have been told.
    opening.Return(-1);
    return;
  }
  const int result = CamOpen(opening.id.c_str());
  if (result < 0) {
    VEL_ERROR("open camera failed, ret[%d]", result);
  }
  if (!opening.Answer(result) && result >= 0) {
    CamClose(opening.id.c_str());
  }
  VEL_DEBUG("Open camera[%s] finish.", EscapeForLog(opening.id).c_str());
  opening.Return(result);
}

int QtCamera::Close() {
  if (mOpened) {
    CamClose(mCameraId.c_str());
    mOpened = false;
  }
  ReleaseWorker();
  return 0;
}

void QtCamera::ReleaseWorker() {
  std::shared_ptr<Opening> opening;
  {
    const MutexLock lock(mMutex);
    opening.swap(mOpening);
  }
  if (opening != nullptr) {
    opening->End();
  }
  mOpenThread.Leave();
}

int QtCamera::SetParam(_CameraParam* param) {
  _CameraParam copy = *param;
  return CamSetParam(mCameraId.c_str(), &copy);
}

int QtCamera::StreamOn() {
  if (!mStopped && !mStreamThread.HasEnded()) {
    VEL_DEBUG("already start");
    return 0;
  }
  mStreamWanted = std::make_shared<std::atomic<bool>>(true);
  const bool started = mStreamThread.Start([wanted = mStreamWanted, id = mCameraId] {
    if (*wanted) {
      [[maybe_unused]] const int result = CamStreamOn(id.c_str());
      VEL_DEBUG("StreamOn ret[%d]", result);
    }
  });
  mStopped = !started;
  return started ? 0 : -1;
}

int QtCamera::StreamOff() {
  if (mStopped) {
    return -1;
  }
  mStopped = true;
  *mStreamWanted = false;
  CamStreamOff(mCameraId.c_str());
  mStreamThread.Leave();
  return 0;
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
