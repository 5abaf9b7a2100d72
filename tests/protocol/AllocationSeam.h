#ifndef VIRTUSB_TESTS_PROTOCOL_ALLOCATION_SEAM_H
#define VIRTUSB_TESTS_PROTOCOL_ALLOCATION_SEAM_H

namespace vel::test {

// While it lives, this thread's calls of malloc or realloc in this binary answer null.
class FailingMalloc {
 public:
  FailingMalloc();
  ~FailingMalloc();
};
class FailingRealloc {
 public:
  FailingRealloc();
  ~FailingRealloc();
};

}  // namespace vel::test

#endif
