#ifndef VIRTUSB_TESTS_VM_REMOTE_REQUIRE_H
#define VIRTUSB_TESTS_VM_REMOTE_REQUIRE_H

#include <chrono>
#include <stdexcept>
#include <string>

namespace vel::vm {

// What was expected did not happen: ends the program with a line that says so.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline void Require(bool holds, const std::string& otherwise) {
  if (!holds) {
    throw Failure(otherwise);
  }
}

inline void RequireEqual(long long actual, long long expected, const std::string& what) {
  Require(actual == expected, what + ": " + std::to_string(actual) + " instead of " + std::to_string(expected));
}

// How long anything may take before the test calls it a failure; emulation is slow.
constexpr std::chrono::seconds kDeadline{20};

}  // namespace vel::vm

#endif
