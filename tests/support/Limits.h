#ifndef VIRTUSB_TESTS_SUPPORT_LIMITS_H
#define VIRTUSB_TESTS_SUPPORT_LIMITS_H

#include <chrono>

namespace vel {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// How much longer things may take in an instrumented build.
inline constexpr int kSlowdown = kSanitized ? 20 : 1;

// For waits whose end only a failure reaches.
inline constexpr std::chrono::seconds kDeadline{60};

// For waits that see to it that something does not happen: too short a wait lets a fault pass,
// never fails a test.
inline constexpr std::chrono::milliseconds kNever{30};

}  // namespace vel

#endif
