#ifndef VIRTUSB_TESTS_SUPPORT_COLLECTED_H
#define VIRTUSB_TESTS_SUPPORT_COLLECTED_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <utility>
#include <vector>

#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {

// What other threads bring and a test waits for. Any thread.
template <class T>
class Collected {
 public:
  void Add(T item) {
    const MutexLock lock(mMutex);
    mItems.push_back(std::move(item));
    mAdded.NotifyAll();
  }
  // The first `count`; fewer after the deadline, which only a failure reaches.
  std::vector<T> Await(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    MutexLock lock(mMutex);
    while (mItems.size() < count && mAdded.WaitUntil(lock, deadline)) {
    }
    return {mItems.begin(), mItems.begin() + static_cast<std::ptrdiff_t>(std::min(count, mItems.size()))};
  }
  // All, which are forgotten.
  std::vector<T> Take() {
    const MutexLock lock(mMutex);
    return std::exchange(mItems, {});
  }
  std::size_t Count() {
    const MutexLock lock(mMutex);
    return mItems.size();
  }

 private:
  Mutex mMutex;
  CondVar mAdded;
  std::vector<T> mItems VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
