#ifndef VEL_POLICYS_STREAM_FAILURE_LINE_H
#define VEL_POLICYS_STREAM_FAILURE_LINE_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace vel {

// Keeps a failure that repeats from flooding the log: the first one is a line, and then at most one each second, which
// counts. One thread at a time.
class FailureLine {
 public:
  // How many failures a line stands for that is written now, the present one included; 0: none is.
  std::uint32_t Count() {
    ++mFailures;
    const auto now = std::chrono::steady_clock::now();
    if (mLast.has_value() && now < *mLast + std::chrono::seconds(1)) {
      return 0;
    }
    mLast = now;
    return std::exchange(mFailures, 0);
  }

 private:
  std::uint32_t mFailures = 0;  // Since the last line.
  std::optional<std::chrono::steady_clock::time_point> mLast;
};

}  // namespace vel

#endif
