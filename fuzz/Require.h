#ifndef VIRTUSB_FUZZ_REQUIRE_H
#define VIRTUSB_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

namespace vel {

// An invariant of a fuzz target: when it does not hold, says which on standard error and ends the
// process, which the fuzzer and the replay count as a crash.
inline void Require(bool holds, const char* what) {
  if (!holds) {
    static_cast<void>(std::fprintf(stderr, "not so: %s\n", what));
    std::abort();
  }
}

}  // namespace vel

#endif
