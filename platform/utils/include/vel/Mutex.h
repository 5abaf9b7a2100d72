// A mutex, its guard and a condition variable that clang's thread-safety analysis understands.
//
// Members guarded by a mutex are marked VEL_GUARDED_BY, functions that want it held VEL_REQUIRES; a build with
// clang checks the marks, other compilers ignore them.
#ifndef VEL_MUTEX_H
#define VEL_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define VEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEL_THREAD_ANNOTATION(x)
#endif
#define VEL_GUARDED_BY(mutex) VEL_THREAD_ANNOTATION(guarded_by(mutex))
#define VEL_REQUIRES(mutex) VEL_THREAD_ANNOTATION(requires_capability(mutex))
#define VEL_EXCLUDES(mutex) VEL_THREAD_ANNOTATION(locks_excluded(mutex))

namespace vel {

class VEL_THREAD_ANNOTATION(capability("mutex")) Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

 private:
  friend class MutexLock;
  std::mutex mMutex;
};

// Holds a mutex for a scope.
class VEL_THREAD_ANNOTATION(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) VEL_THREAD_ANNOTATION(acquire_capability(mutex)) : mLock(mutex.mMutex) {}
  ~MutexLock() VEL_THREAD_ANNOTATION(release_capability()) = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  friend class CondVar;
  std::unique_lock<std::mutex> mLock;
};

// Waits are written as loops over their condition, so that the analysis sees what the condition reads:
//   while (!mReady) mChanged.Wait(lock);
class CondVar {
 public:
  void Wait(MutexLock& lock) { mCondition.wait(lock.mLock); }
  // False when `deadline` has passed; the condition is to be looked at once more then.
  bool WaitUntil(MutexLock& lock, std::chrono::steady_clock::time_point deadline) {
    return mCondition.wait_until(lock.mLock, deadline) == std::cv_status::no_timeout;
  }
  void NotifyOne() { mCondition.notify_one(); }
  void NotifyAll() { mCondition.notify_all(); }

 private:
  std::condition_variable mCondition;
};

}  // namespace vel

#endif
