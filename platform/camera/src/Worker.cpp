#include <atomic>
#include <memory>
#include <system_error>
#include <thread>

#include "oskelo/camera.h"

struct CamWorker {
  void (*function)(void*) = nullptr;
  void* context = nullptr;
  // Shared with the thread, which may outlive the worker.
  std::shared_ptr<std::atomic<bool>> returned;
  std::thread thread;
};

extern "C" {

CamWorker* CreatQtWorker(void* /*parent*/, void (*function)(void*), void* context) {
  return function == nullptr ? nullptr
                             : new CamWorker{function, context, std::make_shared<std::atomic<bool>>(false), {}};
}

int StartQtWroker(CamWorker* worker) {
  if (worker == nullptr || worker->thread.joinable()) {
    return -1;
  }
  try {
    worker->thread = std::thread([function = worker->function, context = worker->context, returned = worker->returned] {
      function(context);
      *returned = true;
    });
  } catch (const std::system_error&) {
    return -1;
  }
  return 0;
}

void QuitQtWroker(CamWorker* worker) {
  const std::unique_ptr<CamWorker> owned(worker);
  if (owned == nullptr || !owned->thread.joinable()) {
    return;
  }
  if (*owned->returned) {
    owned->thread.join();
  } else {
    owned->thread.detach();
  }
}

}  // extern "C"
