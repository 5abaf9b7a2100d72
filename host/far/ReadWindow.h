#ifndef VIRTUSB_HOST_FAR_READ_WINDOW_H
#define VIRTUSB_HOST_FAR_READ_WINDOW_H

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>

namespace vel {

// How many reads of a camera's stream are to be in flight. Each one lets a picture onto the link: as many as are needed
// for one to wait at the camera while the others are on their way, and no more, since on a link that is narrower than
// the stream each further one is a picture that waits in front of the link, where it grows old and is in the way of
// other devices. One thread.
class ReadWindow {
 public:
  using Clock = std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;

  static constexpr int kFirst = 3;
  static constexpr int kMost = 16;

  void Arrived(Clock::time_point now) {
    if (mLast) {
      mGaps = std::min(mGaps + 1, kOfMean);
      mGap += (now - *mLast - mGap) / mGaps;
    }
    mLast = now;
  }

  // `roundTrip`: what the way costs while nothing else is on it.
  int Wanted(Seconds roundTrip) const {
    if (mGaps < kOfMean / 2) {
      return kFirst;
    }
    constexpr Seconds kSwift{0.05};  // A link that carries so many has room for one more, against its hiccups.
    const double onTheWay = std::ceil(roundTrip / std::max(mGap, Seconds(0.001)));
    return static_cast<int>(std::clamp<double>(1 + onTheWay, mGap < kSwift ? 3 : 2, kMost));
  }

 private:
  static constexpr int kOfMean = 8;

  std::optional<Clock::time_point> mLast;
  int mGaps = 0;
  Seconds mGap{0};  // Between two pictures, the mean of the latest.
};

}  // namespace vel

#endif
