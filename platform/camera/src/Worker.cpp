#include <exception>
#include <memory>
#include <new>
#include <thread>

#include "oskelo/camera.h"

struct CamWorker {
  void (*function)(void*) = nullptr;
  void* context = nullptr;
  std::thread thread;
};

extern "C" {

CamWorker* CreatQtWorker(void* /*parent*/, void (*function)(void*), void* context) {
  return function == nullptr ? nullptr : new (std::nothrow) CamWorker{function, context, {}};
}

int StartQtWroker(CamWorker* worker) {
  if (worker == nullptr || worker->thread.joinable()) {
    return -1;
  }
  try {
    worker->thread = std::thread(worker->function, worker->context);
  } catch (const std::exception&) {
    return -1;
  }
  return 0;
}

void QuitQtWroker(CamWorker* worker) {
  const std::unique_ptr<CamWorker> owned(worker);
  if (owned != nullptr && owned->thread.joinable()) {
    owned->thread.join();
  }
}

}  // extern "C"
