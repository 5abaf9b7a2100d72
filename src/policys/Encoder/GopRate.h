#ifndef VEL_POLICYS_ENCODER_GOP_RATE_H
#define VEL_POLICYS_ENCODER_GOP_RATE_H

#include <cstdint>

namespace vel {

// Holds a bit rate with one quantiser for each group of pictures, from key frame to key frame, for encoders whose own
// rate control does not hold it there. What a group takes too much the next ones get less, and the other way round. One
// thread at a time.
class GopRate {
 public:
  // The range of H.264's quantiser that is used: below it nothing is gained that can be seen, above it nothing is left.
  static constexpr int kMinQp = 10;
  static constexpr int kMaxQp = 48;

  // What a picture of this many pixels may take on average.
  GopRate(double bitsPerGop, double bitsPerPixel);

  // Of the next group.
  int Qp() const;

  // A group has ended that was encoded with Qp().
  void Ended(std::uint64_t bytes);

 private:
  const double mBitsPerGop;
  double mExcess = 0;  // Bits taken above the rate so far, within limits.
  double mQp;
};

}  // namespace vel

#endif
