#ifndef VIRTUSB_HOST_OBSERVE_DEVICE_TALLY_H
#define VIRTUSB_HOST_OBSERVE_DEVICE_TALLY_H

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "observe/LatencyHistogram.h"
#include "observe/UrbTranslation.h"

namespace vel {

// How a transfer can fail.
enum class Failure : std::uint8_t { kStall, kTimeout, kCancelled, kError, kGone, kOverflow };
inline constexpr std::array<const char*, 6> kFailureNames = {"stall", "timeout", "cancelled",
                                                             "error", "gone",    "overflow"};

struct DeviceCounts {
  std::uint64_t transfers = 0;  // That were answered, control requests and failed ones included.
  std::uint64_t bytesIn = 0;    // From the device.
  std::uint64_t bytesOut = 0;
  std::array<std::uint64_t, kFailureNames.size()> failures{};
  std::uint64_t unanswered = 0;  // Given up: no reply can come any more.
  // Of a camera; its reads are among the transfers.
  std::uint64_t pictures = 0;
  std::uint64_t pictureBytes = 0;
  std::uint64_t silentReads = 0;  // For which no picture came in time. They are no failures.
  std::uint64_t late = 0;         // Pictures that gave way to newer ones before the guest had room for them.
};

// How a device does, over the time since the last figures and since the beginning.
struct DeviceFigures {
  std::string device;
  double seconds = 0;  // What `lately` is about.
  DeviceCounts lately;
  DeviceCounts total;
  std::size_t inFlight = 0;
  // Milliseconds from a request to its reply, lately: of control, bulk and interrupt OUT transfers. The others wait for
  // the device to have something. Nothing when there was none.
  std::optional<double> roundTripP50;
  std::optional<double> roundTripP99;
  bool isCamera = false;
  std::optional<double> pictureAge;  // Seconds since the newest picture came.
};

// Counts a device's traffic. Not locked.
class DeviceTally {
 public:
  using Clock = std::chrono::steady_clock;

  void Add(const PendingUrb& urb, const UsbEvent& completion, Clock::time_point now);
  void AddCancelled() { ++At(Failure::kCancelled); }
  void AddGone(std::size_t count) { At(Failure::kGone) += count; }
  void AddUnanswered(std::size_t count) { mTotal.unanswered += count; }
  void AddLate() { ++mTotal.late; }
  // The counting part of the figures. The next ones begin here.
  DeviceFigures Take(Clock::time_point now);

 private:
  std::uint64_t& At(Failure failure) { return mTotal.failures[static_cast<std::size_t>(failure)]; }

  DeviceCounts mTotal;
  DeviceCounts mTaken;
  Clock::time_point mTakenAt = Clock::now();
  std::optional<Clock::time_point> mLastPicture;
  LatencyHistogram mRoundTrips;
};

}  // namespace vel

#endif
