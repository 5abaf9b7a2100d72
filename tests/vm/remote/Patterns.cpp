#include "Patterns.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "Require.h"

namespace vel::vm {
namespace {

constexpr std::size_t kPacket = 1024;
constexpr std::size_t kPeriod = 63;

void RequireSame(std::span<const std::uint8_t> data, std::span<const std::uint8_t> expected) {
  if (data.size() != expected.size() || std::memcmp(data.data(), expected.data(), data.size()) != 0) {
    const auto [wrong, right] = std::mismatch(data.begin(), data.end(), expected.begin(), expected.end());
    throw Failure("wrong data from byte " + std::to_string(wrong - data.begin()) + " of " +
                  std::to_string(data.size()));
  }
}

}  // namespace

void FillSourcePattern(std::span<std::uint8_t> data) {
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<std::uint8_t>(i % kPacket % kPeriod);
  }
}

void RequireSourcePattern(std::span<const std::uint8_t> data) {
  thread_local std::vector<std::uint8_t> expected;
  if (expected.size() != data.size()) {
    expected.resize(data.size());
    FillSourcePattern(expected);
  }
  RequireSame(data, expected);
}

void FillUniquePattern(std::span<std::uint8_t> data, std::uint64_t offset) {
  constexpr std::uint32_t kOdd = 2654435761U;  // Odd: no two words of a stream are equal.
  auto word = static_cast<std::uint32_t>(offset / sizeof(std::uint32_t));
  for (std::size_t i = 0; i < data.size(); i += sizeof word, ++word) {
    const std::uint32_t value = word * kOdd;
    std::memcpy(data.data() + i, &value, std::min(sizeof value, data.size() - i));
  }
}

void RequireUniquePattern(std::span<const std::uint8_t> data, std::uint64_t offset) {
  std::vector<std::uint8_t> expected(data.size());
  FillUniquePattern(expected, offset);
  RequireSame(data, expected);
}

}  // namespace vel::vm
