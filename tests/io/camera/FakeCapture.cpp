#include "FakeCapture.h"

#include <chrono>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "oskelo/log.h"

namespace {

vel::FakeCapture* gFake = nullptr;
thread_local bool tDelivers = false;

}  // namespace

namespace vel {

FakeCapture::FakeCapture() {
  oskeloLogSetLevel(OSKELO_LOG_OFF);  // Until a test takes the log down.
  gFake = this;
}

FakeCapture::~FakeCapture() {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mutex);
  while (workers > 0 && changed.WaitUntil(lock, deadline)) {
  }
  EXPECT_EQ(workers, 0) << "not quit";
  gFake = nullptr;
}

void FakeCapture::BlockOpen(bool blocked) {
  const MutexLock lock(mutex);
  openBlocked = blocked;
  changed.NotifyAll();
}

bool FakeCapture::Picture(std::string picture) {
  CamStreamCallback deliver = nullptr;
  void* receiver = nullptr;
  {
    const MutexLock lock(mutex);
    deliver = callback;
    receiver = context;
    delivering += deliver != nullptr ? 1 : 0;
  }
  if (deliver == nullptr) {
    return false;
  }
  tDelivers = true;
  deliver(reinterpret_cast<unsigned char*>(picture.data()), static_cast<unsigned>(picture.size()), receiver);
  tDelivers = false;
  const MutexLock lock(mutex);
  --delivering;
  changed.NotifyAll();
  return true;
}

std::vector<std::string> FakeCapture::Calls() {
  const MutexLock lock(mutex);
  return calls;
}

bool FakeCapture::WaitForStream() {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mutex);
  while (!streaming && changed.WaitUntil(lock, deadline)) {
  }
  return streaming;
}

}  // namespace vel

extern "C" {

int CamOpen(const char* id) {
  vel::MutexLock lock(gFake->mutex);
  gFake->calls.push_back(std::string("CamOpen ") + id);
  while (gFake->openBlocked) {
    gFake->changed.Wait(lock);
  }
  return gFake->openResult;
}

int CamClose(const char* id) {
  const vel::MutexLock lock(gFake->mutex);
  gFake->calls.push_back(std::string("CamClose ") + id);
  return 0;
}

int CamGetParamList(const char* /*id*/, _CameraParam** list, int* count) {
  *list = gFake->params.data();
  *count = static_cast<int>(gFake->params.size());
  return gFake->listResult;
}

int CamSetParam(const char* /*id*/, _CameraParam* param) {
  const vel::MutexLock lock(gFake->mutex);
  gFake->calls.push_back("CamSetParam " + std::to_string(param->width) + "x" + std::to_string(param->height) + " " +
                         std::to_string(param->pixelFormat));
  gFake->stopped = false;
  return 0;
}

int CamStreamOn(const char* id) {
  vel::MutexLock lock(gFake->mutex);
  gFake->calls.push_back(std::string("CamStreamOn ") + id);
  gFake->streaming = !gFake->stopped;
  gFake->changed.NotifyAll();
  while (gFake->streaming) {
    gFake->changed.Wait(lock);
  }
  gFake->calls.push_back("streamed");
  return 0;
}

int CamStreamOff(const char* id) {
  const vel::MutexLock lock(gFake->mutex);
  gFake->calls.push_back(std::string("CamStreamOff ") + id);
  gFake->stopped = true;
  gFake->streaming = false;
  gFake->changed.NotifyAll();
  return 0;
}

// As the library promises, a callback that was taken away is not running any more.
void CamSetStreamCallback(const char* /*id*/, CamStreamCallback callback, void* context) {
  if (gFake == nullptr) {
    return;
  }
  if (callback == nullptr && gFake->beforeClear) {
    std::exchange(gFake->beforeClear, nullptr)();
  }
  vel::MutexLock lock(gFake->mutex);
  gFake->callback = callback;
  gFake->context = context;
  while (callback == nullptr && gFake->delivering > 0 && !tDelivers) {
    gFake->changed.Wait(lock);
  }
}

struct CamWorker {
  void (*function)(void*);
  void* context;
};

CamWorker* CreatQtWorker(void* /*parent*/, void (*function)(void*), void* context) {
  const vel::MutexLock lock(gFake->mutex);
  ++gFake->workers;
  return new CamWorker{function, context};
}

int StartQtWroker(CamWorker* worker) {
  std::thread(worker->function, worker->context).detach();
  return 0;
}

void QuitQtWroker(CamWorker* worker) {
  delete worker;
  const vel::MutexLock lock(gFake->mutex);
  --gFake->workers;
  gFake->changed.NotifyAll();
}

}  // extern "C"
