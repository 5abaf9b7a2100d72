#ifndef VIRTUSB_TESTS_VM_REMOTE_PATTERN_H
#define VIRTUSB_TESTS_VM_REMOTE_PATTERN_H

#include <cstddef>
#include <cstdint>

namespace vel::vm {

// What the test's own camera shows, YUYV: gradients that move, as an encoder meets them in photographs. Picture number
// n is picture n + kGradients again.
inline constexpr unsigned kGradients = 32;
constexpr std::uint8_t GradientByte(std::size_t column, std::size_t row, unsigned n) {
  const auto wave = [](std::size_t at) { return at % 512 < 256 ? at % 512 : 511 - at % 512; };
  const std::size_t x = column / 2;
  return static_cast<std::uint8_t>(column % 2 == 0 ? 16 + (wave(x + std::size_t{16} * n) + wave(row)) * 7 / 16
                                                   : 112 + wave(x + row) / 8);
}

}  // namespace vel::vm

#endif
