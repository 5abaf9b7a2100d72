#ifndef VIRTUSB_PLATFORM_OS_DETACHED_THREAD_H
#define VIRTUSB_PLATFORM_OS_DETACHED_THREAD_H

#include <pthread.h>

#include <memory>
#include <system_error>
#include <utility>

namespace vel {

// Runs `work`, which must not throw, on a thread that nobody waits for. Throws std::system_error when there is none.
// One that may end early has to be born detached: winpthreads can give what it knows of a thread that is detached while
// it ends to two new ones, of which one then never runs. A thread that detaches itself, or goes on, may do so later.
template <class Work>
void StartDetached(Work work) {
  auto held = std::make_unique<Work>(std::move(work));
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  const auto run = [](void* context) -> void* {
    const std::unique_ptr<Work> own(static_cast<Work*>(context));
    (*own)();
    return nullptr;
  };
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, run, held.get());
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "no thread");
  }
  static_cast<void>(held.release());  // The thread's.
}

}  // namespace vel

#endif
