#ifndef VIRTUSB_HOST_OBSERVE_LATENCY_HISTOGRAM_H
#define VIRTUSB_HOST_OBSERVE_LATENCY_HISTOGRAM_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace vel {

// Times of up to a second to a tenth of a millisecond, in memory that does not grow with their number.
class LatencyHistogram {
 public:
  using Bucket = std::chrono::duration<std::int64_t, std::ratio<1, 10000>>;

  void Add(std::chrono::steady_clock::duration time) {
    const auto bucket = std::chrono::duration_cast<Bucket>(time).count();
    ++mBuckets[static_cast<std::size_t>(std::clamp<std::int64_t>(bucket, 0, kBuckets - 1))];
    ++mCount;
  }

  std::uint64_t Count() const { return mCount; }

  void Clear() {
    std::ranges::fill(mBuckets, 0);
    mCount = 0;
  }

  // The time, in milliseconds, that `share` (0 to 1) of all stay at or below; 0 when there is none.
  double Milliseconds(double share) const {
    const double rank = share * static_cast<double>(mCount);
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < mBuckets.size(); ++i) {
      seen += mBuckets[i];
      if (mBuckets[i] > 0 && static_cast<double>(seen) >= rank) {
        return (static_cast<double>(i) + 0.5) / 10.0;
      }
    }
    return 0.0;
  }

 private:
  static constexpr std::int64_t kBuckets = 10001;  // The last: a second and above.

  std::vector<std::uint64_t> mBuckets = std::vector<std::uint64_t>(kBuckets);
  std::uint64_t mCount = 0;
};

}  // namespace vel

#endif
