#ifndef VIRTUSB_TESTS_WINDOWS_SUPPORT_NO_THREADS_H
#define VIRTUSB_TESTS_WINDOWS_SUPPORT_NO_THREADS_H

namespace vel::test {

// Stands in for the one of other systems: nothing keeps Windows from making a thread.
struct NoThreads {
  NoThreads() {}  // Not trivial: whoever makes one need not use it.
  static constexpr bool kPossible = false;
};

}  // namespace vel::test

#endif
