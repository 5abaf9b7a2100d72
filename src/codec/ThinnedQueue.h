#ifndef VEL_CODEC_THINNED_QUEUE_H
#define VEL_CODEC_THINNED_QUEUE_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <list>
#include <new>
#include <utility>

#include "base/LockOrder.h"
#include "codec/FrameThinning.h"

namespace vel {

// Hands items to a consumer, who loses some in between and gets the newest ones when he falls behind, instead of ever
// older ones. `Item` owns what it stands for, and is empty when it is made without. Any thread; one consumer.
template <class Item>
class ThinnedQueue {
 public:
  // `name` is its word in the log, and outlives it.
  explicit ThinnedQueue(const char* name) : mName(name) {}

  // Until then, and from Close on, it takes nothing.
  void Open() {
    const MutexLock lock(mMutex);
    mOpen = true;
  }
  // Wakes whoever waits. What waits stays until Clear, which may not be called while Front is in use.
  void Close() {
    {
      const MutexLock lock(mMutex);
      mOpen = false;
    }
    mChanged.NotifyAll();
  }
  void Clear() {
    std::list<Item> unread;  // Freed after the lock.
    const MutexLock lock(mMutex);
    unread.swap(mItems);
  }
  bool IsOpen() const {
    const MutexLock lock(mMutex);
    return mOpen;
  }

  // More than kFrameListLimit waiting items are thinned before the new one is added. How many wait now; 0 when the
  // queue is closed or there is no memory, and the item stays the caller's.
  std::size_t Push(Item& item) noexcept {
    std::size_t waiting = 0;
    {
      const MutexLock lock(mMutex);
      if (!mOpen) {
        return 0;
      }
      if (mItems.size() > kFrameListLimit) {
        ThinFrames(kFrameListCacheSize, mItems, mName);
      }
      if (mSpare.empty() && !AddSpare()) {
        return 0;
      }
      mSpare.front() = std::move(item);
      mItems.splice(mItems.end(), mSpare, mSpare.begin());
      waiting = mItems.size();
    }
    mChanged.NotifyOne();
    return waiting;
  }

  // The oldest item; waits for one at most `timeoutMs` milliseconds. An empty one when none came or the queue was
  // closed.
  Item Pop(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    MutexLock lock(mMutex);
    while (mItems.empty() && mOpen && timeoutMs > 0 && mChanged.WaitUntil(lock, deadline)) {
    }
    if (mItems.empty() || !mOpen) {
      return Item{};
    }
    return TakeFront();
  }

  // Waits for an item and leaves it where it is, so that it counts as waiting while it is in use: thinning does not
  // take the oldest. Null when the queue was closed.
  Item* Front() {
    MutexLock lock(mMutex);
    while (mOpen && mItems.empty()) {
      mChanged.Wait(lock);
    }
    return mOpen ? &mItems.front() : nullptr;
  }
  void PopFront() {
    Item done;  // Freed after the lock.
    const MutexLock lock(mMutex);
    done = TakeFront();
  }

 private:
  bool AddSpare() VEL_REQUIRES(mMutex) {
    try {
      mSpare.emplace_back();
    } catch (const std::bad_alloc&) {
      return false;
    }
    return true;
  }
  Item TakeFront() VEL_REQUIRES(mMutex) {
    Item item = std::move(mItems.front());
    mItems.front() = Item{};
    mSpare.splice(mSpare.begin(), mItems, mItems.begin());
    return item;
  }

  const char* const mName;
  mutable Mutex mMutex VEL_LOCK_LEVEL(Queue);
  CondVar mChanged;                               // An item was added, or the queue closed.
  std::list<Item> mItems VEL_GUARDED_BY(mMutex);  // A list: thinning leaves the front where it is.
  std::list<Item> mSpare VEL_GUARDED_BY(mMutex);  // Empty items, so that a picture costs no allocation here.
  bool mOpen VEL_GUARDED_BY(mMutex) = false;
};

}  // namespace vel

#endif
