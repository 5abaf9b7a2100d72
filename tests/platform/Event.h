#ifndef VIRTUSB_TESTS_PLATFORM_EVENT_H
#define VIRTUSB_TESTS_PLATFORM_EVENT_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vel::test {

// Something that happens once and that threads wait for.
class Event {
 public:
  void Set() {
    const std::lock_guard lock(mMutex);
    mSet = true;
    mChanged.notify_all();
  }
  // False when it did not happen in time, which is a failure and never the expected course.
  [[nodiscard]] bool Wait() {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::seconds(30), [this] { return mSet; });
  }
  bool IsSet() {
    const std::lock_guard lock(mMutex);
    return mSet;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mChanged;
  bool mSet = false;
};

}  // namespace vel::test

#endif
