#include "policys/Encoder/GopRate.h"

#include <algorithm>
#include <cmath>

namespace vel {
namespace {

// Bits halve with about this many steps of the quantiser: its step size doubles every 6 (ITU-T H.264, 8.5.9).
constexpr double kStepsPerHalf = 6;
// Groups over which an excess is worked off: fewer let the quality swing.
constexpr double kWorkedOffIn = 3;
// What is worked off at most, in groups: a still picture saves no more than this for later.
constexpr double kMaxExcess = 1.5;
// Where to begin at a tenth of a bit per pixel: a guess, which the first groups correct.
constexpr double kQpAtTenth = 28;

}  // namespace

GopRate::GopRate(double bitsPerGop, double bitsPerPixel)
    : mBitsPerGop(std::max(bitsPerGop, 1.0)),
      mQp(kQpAtTenth - kStepsPerHalf * std::log2(std::max(bitsPerPixel, 1e-3) / 0.1)) {}

int GopRate::Qp() const {
  return static_cast<int>(std::lround(std::clamp<double>(mQp, kMinQp, kMaxQp)));
}

void GopRate::Ended(std::uint64_t bytes) {
  const double bits = std::max(8.0 * static_cast<double>(bytes), 1.0);
  mExcess = std::clamp(mExcess + bits - mBitsPerGop, -kMaxExcess * mBitsPerGop, kMaxExcess * mBitsPerGop);
  const double wanted = mBitsPerGop - mExcess / kWorkedOffIn;
  mQp = std::clamp<double>(Qp() + kStepsPerHalf * std::log2(bits / wanted), kMinQp, kMaxQp);
}

}  // namespace vel
