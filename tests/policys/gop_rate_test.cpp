#include "policys/Encoder/GopRate.h"

#include <cmath>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

namespace vel {
namespace {

constexpr double kBitsPerGop = 800000.0 / 3;

// Groups of an encoder whose bits fall by half with every 5.2 or 6.8 quantisers, on content that takes `load` of the
// rate at quantiser 30.
std::vector<double> Encode(GopRate& rate, double stepsPerHalf, double load, int groups) {
  std::vector<double> bits;
  for (int i = 0; i < groups; ++i) {
    const double wobble = 1 + 0.1 * std::sin(i);
    bits.push_back(kBitsPerGop * load * wobble * std::exp2((30 - rate.Qp()) / stepsPerHalf));
    rate.Ended(static_cast<std::uint64_t>(bits.back() / 8));
  }
  return bits;
}

TEST(GopRate, HoldsTheRateOverFourSecondsWhateverTheContent) {
  constexpr std::ptrdiff_t kFourSeconds = 12;
  for (const double stepsPerHalf : {5.2, 6.8}) {
    for (const double load : {0.3, 1.0, 4.0}) {
      GopRate rate(kBitsPerGop, 0.17);
      const std::vector<double> bits = Encode(rate, stepsPerHalf, load, 60);
      for (auto begin = bits.begin() + 3; begin + kFourSeconds <= bits.end(); ++begin) {
        EXPECT_NEAR(std::accumulate(begin, begin + kFourSeconds, 0.0) / (kFourSeconds * kBitsPerGop), 1, 0.15)
            << "load " << load << ", " << stepsPerHalf << " steps, group " << begin - bits.begin();
      }
    }
  }
}

TEST(GopRate, ComesBackAfterContentThatItCannotHold) {
  GopRate rate(kBitsPerGop, 0.17);
  Encode(rate, 6, 0, 50);
  EXPECT_EQ(rate.Qp(), GopRate::kMinQp);
  Encode(rate, 6, 1000, 50);
  EXPECT_EQ(rate.Qp(), GopRate::kMaxQp);
  const std::vector<double> bits = Encode(rate, 6, 1, 30);
  EXPECT_NEAR(std::accumulate(bits.end() - 12, bits.end(), 0.0) / (12 * kBitsPerGop), 1, 0.15);
}

}  // namespace
}  // namespace vel
