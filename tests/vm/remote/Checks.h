#ifndef VIRTUSB_TESTS_VM_REMOTE_CHECKS_H
#define VIRTUSB_TESTS_VM_REMOTE_CHECKS_H

#include <stdexcept>
#include <string>

namespace vel::vm {

// What does not hold ends the program with a line that says so.
inline void Require(bool holds, const std::string& otherwise) {
  if (!holds) {
    throw std::runtime_error(otherwise);
  }
}

inline void RequireEqual(long long actual, long long expected, const std::string& what) {
  Require(actual == expected, what + ": " + std::to_string(actual) + " instead of " + std::to_string(expected));
}

}  // namespace vel::vm

#endif
