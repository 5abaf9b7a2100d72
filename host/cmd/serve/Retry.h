#ifndef VIRTUSB_HOST_CMD_SERVE_RETRY_H
#define VIRTUSB_HOST_CMD_SERVE_RETRY_H

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace vel {

// The pauses before each new try to reach a device that is served elsewhere: each twice as long as the one before. One
// thread.
class Retry {
 public:
  struct Pauses {
    std::chrono::milliseconds first{1000};
    std::chrono::milliseconds longest{30000};
  };

  // So many tries, or any number.
  Retry(std::optional<unsigned> tries, Pauses pauses) : mLeft(tries), mLongest(pauses.longest), mNext(pauses.first) {}

  std::chrono::milliseconds Longest() const { return mLongest; }
  // Nothing when there are no tries left.
  std::optional<std::chrono::milliseconds> Next() {
    if (mLeft == 0) {
      return std::nullopt;
    }
    mLeft = mLeft ? std::optional(*mLeft - 1) : std::nullopt;
    return std::exchange(mNext, std::min(2 * mNext, mLongest));
  }

 private:
  std::optional<unsigned> mLeft;
  std::chrono::milliseconds mLongest;
  std::chrono::milliseconds mNext;
};

}  // namespace vel

#endif
