#include "vel/Looper.h"

#include <atomic>
#include <exception>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

namespace vel {

struct Looper::Queue {
  Mutex mutex;
  CondVar posted;
  std::vector<std::unique_ptr<Message>> messages VEL_GUARDED_BY(mutex);
  bool waiting VEL_GUARDED_BY(mutex) = false;  // The thread sleeps: a post has to wake it.
  bool started VEL_GUARDED_BY(mutex) = false;
  std::thread::id runner VEL_GUARDED_BY(mutex);
  std::atomic<bool> stopped{false};  // Written under the mutex; read without it between messages.
};

Looper::Looper() : mQueue(std::make_shared<Queue>()) {}

Looper::~Looper() {
  Stop();
  const MutexLock lock(mThreadMutex);
  if (mThread.joinable()) {  // Only when destroyed on the loop's own thread.
    mThread.detach();
  }
}

int Looper::Start() {
  const MutexLock threadLock(mThreadMutex);
  {
    const MutexLock lock(mQueue->mutex);
    if (mQueue->started || mQueue->stopped) {
      return -1;
    }
    mQueue->started = true;
  }
  try {
    mThread = std::thread([queue = mQueue] { Run(*queue); });
  } catch (const std::exception&) {  // No thread, or no memory for one.
    const MutexLock lock(mQueue->mutex);
    mQueue->started = false;
    return -1;
  }
  return 0;
}

int Looper::Stop() {
  std::vector<std::unique_ptr<Message>> unhandled;
  {
    const MutexLock lock(mQueue->mutex);
    mQueue->stopped = true;
    unhandled.swap(mQueue->messages);
    mQueue->posted.NotifyOne();
    if (mQueue->runner == std::this_thread::get_id()) {
      return 0;
    }
  }
  const MutexLock threadLock(mThreadMutex);
  if (mThread.joinable()) {
    mThread.join();
  }
  return 0;
}

int Looper::PostMessageAAA(std::unique_ptr<Message> message) noexcept {
  if (message == nullptr) {
    return -1;
  }
  bool wake = false;
  {
    const MutexLock lock(mQueue->mutex);
    if (mQueue->stopped) {
      return -1;
    }
    try {
      mQueue->messages.push_back(std::move(message));
    } catch (const std::bad_alloc&) {
      return -1;
    }
    wake = std::exchange(mQueue->waiting, false);
  }
  if (wake) {  // Outside the lock: the woken thread takes it at once.
    mQueue->posted.NotifyOne();
  }
  return 0;
}

void Looper::Run(Queue& queue) noexcept {
  {
    const MutexLock lock(queue.mutex);
    queue.runner = std::this_thread::get_id();
  }
  std::vector<std::unique_ptr<Message>> batch;  // Swapped with the queue, so that both keep their memory.
  while (true) {
    {
      MutexLock lock(queue.mutex);
      while (queue.messages.empty() && !queue.stopped) {
        queue.waiting = true;
        queue.posted.Wait(lock);
      }
      queue.waiting = false;
      if (queue.stopped) {
        return;
      }
      batch.swap(queue.messages);
    }
    for (std::unique_ptr<Message>& message : batch) {
      if (queue.stopped.load(std::memory_order_acquire)) {
        return;  // What is left of the batch is destroyed unhandled.
      }
      message->HandleMessage();
      message.reset();
    }
    batch.clear();
  }
}

}  // namespace vel
