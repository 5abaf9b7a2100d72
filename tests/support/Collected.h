#ifndef VIRTUSB_TESTS_SUPPORT_COLLECTED_H
#define VIRTUSB_TESTS_SUPPORT_COLLECTED_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "support/Limits.h"
#include "vel/Mutex.h"

namespace vel {

// What other threads bring and a test waits for. Any thread; one takes from it.
template <class T>
class Collected {
 public:
  void Add(T item) {
    const MutexLock lock(mMutex);
    mItems.push_back(std::move(item));
    mAdded.NotifyAll();
  }
  // The first `count`; fewer after the deadline, which only a failure reaches.
  std::vector<T> Await(std::size_t count) const {
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
  // The first, which is forgotten; nothing after the deadline.
  std::optional<T> Next() {
    const bool came = !Await(1).empty();
    const MutexLock lock(mMutex);
    std::optional<T> item;
    if (came) {
      item = std::move(mItems.front());
      mItems.erase(mItems.begin());
    }
    return item;
  }
  std::size_t Count() const {
    const MutexLock lock(mMutex);
    return mItems.size();
  }

 private:
  mutable Mutex mMutex;
  mutable CondVar mAdded;
  std::vector<T> mItems VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
