#ifndef VIRTUSB_TESTS_SUPPORT_NO_THREADS_H
#define VIRTUSB_TESTS_SUPPORT_NO_THREADS_H

#include <pthread.h>

#include <cstddef>

namespace vel::test {

// As long as it lives, no thread can be made in this process: none has room for its stack. One at a time.
class NoThreads {
 public:
  static constexpr bool kPossible = true;

  NoThreads() {
    pthread_getattr_default_np(&mFormer);
    pthread_attr_t huge = mFormer;
    pthread_attr_setstacksize(&huge, std::size_t{1} << 46U);
    pthread_setattr_default_np(&huge);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;
  ~NoThreads() {
    pthread_setattr_default_np(&mFormer);
    pthread_attr_destroy(&mFormer);
  }

 private:
  pthread_attr_t mFormer{};
};

}  // namespace vel::test

#endif
