#include "vel/Looper.h"

#include <atomic>
#include <cstdint>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

#include "IdleSpin.h"

namespace vel {

// A list that any thread pushes to and the loop takes whole, without a lock. The lock is for its sleep, and for Stop.
struct Looper::Queue {
  // What `newest` is besides a message.
  static constexpr std::uintptr_t kEmpty = 0;     // Nothing waits, the loop is awake.
  static constexpr std::uintptr_t kSleeping = 1;  // Nothing waits, and a post has to wake the loop.
  static constexpr std::uintptr_t kStopped = 2;   // For good.
  static bool IsMessage(std::uintptr_t value) { return value > kStopped; }
  static Message* AsMessage(std::uintptr_t value) {
    return reinterpret_cast<Message*>(value);  // NOLINT(performance-no-int-to-ptr): it was one.
  }

  std::atomic<std::uintptr_t> newest{kEmpty};

  Mutex mutex;
  CondVar woken;
  bool wake VEL_GUARDED_BY(mutex) = false;
  bool started VEL_GUARDED_BY(mutex) = false;
  std::thread::id runner VEL_GUARDED_BY(mutex);

  bool Stopped() const { return newest.load(std::memory_order_acquire) == kStopped; }
  void Wake();
  // Returns when there is a message, or the loop is stopped.
  void Await(IdleSpin& spin);
};

void Looper::Queue::Wake() {
  {
    const MutexLock lock(mutex);
    wake = true;
  }
  woken.NotifyOne();  // Outside the lock: the woken thread takes it at once.
}

void Looper::Queue::Await(IdleSpin& spin) {
  if (spin.Await([this] { return newest.load(std::memory_order_relaxed) != kEmpty; })) {
    return;
  }
  std::uintptr_t expected = kEmpty;
  if (!newest.compare_exchange_strong(expected, kSleeping, std::memory_order_acquire)) {
    return;
  }
  MutexLock lock(mutex);
  while (!wake) {
    woken.Wait(lock);
  }
  wake = false;
}

// The messages from the list's end on, oldest first.
Message* Looper::InOrder(std::uintptr_t newest) {
  Message* oldest = nullptr;
  for (auto* message = Queue::AsMessage(newest); message != nullptr;) {
    Message* const before = std::exchange(message->mNext, oldest);
    oldest = std::exchange(message, before);
  }
  return oldest;
}

void Looper::DestroyAll(Message* oldest) {
  while (oldest != nullptr) {
    const std::unique_ptr<Message> message(std::exchange(oldest, oldest->mNext));
  }
}

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
    if (mQueue->started || mQueue->Stopped()) {
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
  const std::uintptr_t before = mQueue->newest.exchange(Queue::kStopped, std::memory_order_acq_rel);
  if (before == Queue::kSleeping) {
    mQueue->Wake();
  }
  if (Queue::IsMessage(before)) {
    DestroyAll(InOrder(before));
  }
  {
    const MutexLock lock(mQueue->mutex);
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
  const auto posted = reinterpret_cast<std::uintptr_t>(message.get());
  std::uintptr_t before = mQueue->newest.load(std::memory_order_relaxed);
  do {
    if (before == Queue::kStopped) {
      return -1;
    }
    message->mNext = Queue::IsMessage(before) ? Queue::AsMessage(before) : nullptr;
  } while (!mQueue->newest.compare_exchange_weak(before, posted, std::memory_order_release, std::memory_order_relaxed));
  static_cast<void>(message.release());
  if (before == Queue::kSleeping) {
    mQueue->Wake();
  }
  return 0;
}

void Looper::Run(Queue& queue) noexcept {
  {
    const MutexLock lock(queue.mutex);
    queue.runner = std::this_thread::get_id();
  }
  IdleSpin spin;
  std::uintptr_t newest = queue.newest.load(std::memory_order_acquire);
  while (newest != Queue::kStopped) {
    if (!Queue::IsMessage(newest)) {
      queue.Await(spin);
      newest = queue.newest.load(std::memory_order_acquire);
    } else if (queue.newest.compare_exchange_weak(newest, Queue::kEmpty, std::memory_order_acquire)) {
      Message* rest = InOrder(newest);
      while (rest != nullptr && !queue.Stopped()) {
        const std::unique_ptr<Message> message(std::exchange(rest, rest->mNext));
        message->HandleMessage();
      }
      DestroyAll(rest);  // Unhandled, when the loop was stopped.
      newest = queue.newest.load(std::memory_order_acquire);
    }
  }
}

}  // namespace vel
