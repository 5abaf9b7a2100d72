#ifndef VIRTUSB_BENCH_PERCENTILE_H
#define VIRTUSB_BENCH_PERCENTILE_H

#include <algorithm>
#include <cstddef>
#include <vector>

namespace vel::bench {

// The least of the values that is not below `share` of them, 0 to 1. 0 of none.
inline double Percentile(std::vector<double> values, double share) {
  if (values.empty()) {
    return 0;
  }
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

}  // namespace vel::bench

#endif
