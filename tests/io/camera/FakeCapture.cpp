#include "FakeCapture.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "oskelo/log.h"

namespace vel {
namespace {

FakeCapture* gFake = nullptr;
thread_local bool tDelivers = false;

}  // namespace

FakeCapture::FakeCapture() {
  oskeloLogSetLevel(OSKELO_LOG_OFF);  // Until a test takes the log down.
  gFake = this;
}

FakeCapture::~FakeCapture() {
  gFake = nullptr;
}

void FakeCapture::BlockOpen() {
  const MutexLock lock(mMutex);
  mOpenBlocked = true;
}

void FakeCapture::ReleaseOpen() {
  const MutexLock lock(mMutex);
  mOpenBlocked = false;
  mChanged.NotifyAll();
}

bool FakeCapture::Picture(std::vector<std::uint8_t> picture) {
  CamStreamCallback callback = nullptr;
  void* context = nullptr;
  {
    const MutexLock lock(mMutex);
    callback = mCallback;
    context = mContext;
    mDelivering += callback != nullptr ? 1 : 0;
  }
  if (callback == nullptr) {
    return false;
  }
  tDelivers = true;
  callback(picture.data(), static_cast<unsigned>(picture.size()), context);
  tDelivers = false;
  const MutexLock lock(mMutex);
  --mDelivering;
  mChanged.NotifyAll();
  return true;
}

void FakeCapture::Unplug() {
  const MutexLock lock(mMutex);
  mUnplugged = true;
  mChanged.NotifyAll();
}

std::vector<std::string> FakeCapture::Calls() const {
  const MutexLock lock(mMutex);
  return mCalls;
}

bool FakeCapture::WaitForCall(const std::string& call) const {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mMutex);
  while (std::find(mCalls.begin(), mCalls.end(), call) == mCalls.end()) {
    if (!mChanged.WaitUntil(lock, deadline)) {
      return false;
    }
  }
  return true;
}

bool FakeCapture::WaitForStream() const {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mMutex);
  while (!mStreaming) {
    if (!mChanged.WaitUntil(lock, deadline)) {
      return false;
    }
  }
  return true;
}

std::string FakeCapture::RegisteredId() const {
  const MutexLock lock(mMutex);
  return mRegisteredId;
}

void FakeCapture::Note(const std::string& call) {
  const MutexLock lock(mMutex);
  mCalls.push_back(call);
  mChanged.NotifyAll();
}

int FakeCapture::Open() {
  MutexLock lock(mMutex);
  while (mOpenBlocked) {
    mChanged.Wait(lock);
  }
  return openResult;
}

int FakeCapture::Stream() {
  MutexLock lock(mMutex);
  mStreaming = !mStopped;
  mChanged.NotifyAll();
  while (mStreaming && !mUnplugged) {
    mChanged.Wait(lock);
  }
  mStreaming = false;
  return std::exchange(mUnplugged, false) ? -1 : 0;
}

void FakeCapture::StopStream() {
  const MutexLock lock(mMutex);
  mStopped = true;
  mStreaming = false;
  mChanged.NotifyAll();
}

void FakeCapture::Arm() {
  const MutexLock lock(mMutex);
  mStopped = false;
}

void FakeCapture::Register(const char* id, CamStreamCallback callback, void* context) {
  MutexLock lock(mMutex);
  mRegisteredId = id;
  mCallback = callback;
  mContext = context;
  while (callback == nullptr && mDelivering > 0 && !tDelivers) {
    mChanged.Wait(lock);
  }
}

}  // namespace vel

using vel::gFake;

extern "C" {

int CamOpen(const char* id) {
  gFake->Note(std::string("CamOpen ") + id);
  return gFake->Open();
}

int CamClose(const char* id) {
  gFake->Note(std::string("CamClose ") + id);
  return 0;
}

int CamGetParamList(const char* /*id*/, _CameraParam** list, int* count) {
  *list = gFake->params.data();
  *count = static_cast<int>(gFake->params.size());
  return gFake->listResult;
}

int CamSetParam(const char* /*id*/, _CameraParam* param) {
  gFake->Note("CamSetParam " + std::to_string(param->width) + "x" + std::to_string(param->height) + " " +
              std::to_string(param->pixelFormat));
  gFake->Arm();
  return gFake->setParamResult;
}

int CamStreamOn(const char* id) {
  gFake->Note(std::string("CamStreamOn ") + id);
  return gFake->Stream();
}

int CamStreamOff(const char* id) {
  gFake->Note(std::string("CamStreamOff ") + id);
  gFake->StopStream();
  return 0;
}

void CamSetStreamCallback(const char* id, CamStreamCallback callback, void* context) {
  if (gFake != nullptr) {
    gFake->Register(id, callback, context);
  }
}

struct CamWorker {
  void (*function)(void*);
  void* context;
};

CamWorker* CreatQtWorker(void* /*parent*/, void (*function)(void*), void* context) {
  return new CamWorker{function, context};
}

int StartQtWroker(CamWorker* worker) {
  std::thread(worker->function, worker->context).detach();
  return 0;
}

void QuitQtWroker(CamWorker* worker) {
  delete worker;
}

}  // extern "C"
