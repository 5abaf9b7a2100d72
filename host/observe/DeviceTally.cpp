#include "observe/DeviceTally.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "remote/TransferAnswer.h"

namespace vel {
namespace {

Failure FailureOf(std::int32_t status) {
  switch (-status) {
    case kGuestPipe:
      return Failure::kStall;
    case kGuestTimedOut:
      return Failure::kTimeout;
    case kGuestReset:
      return Failure::kCancelled;
    case kGuestNoDevice:
      return Failure::kGone;
    case kGuestOverflow:
      return Failure::kOverflow;
    default:
      return Failure::kError;
  }
}

bool IsTimed(const PendingUrb& urb) {
  return urb.type == UsbTransferType::kControl || urb.type == UsbTransferType::kBulk ||
         (urb.type == UsbTransferType::kInterrupt && !urb.IsIn());
}

DeviceCounts Between(const DeviceCounts& before, const DeviceCounts& after) {
  DeviceCounts counts{.transfers = after.transfers - before.transfers,
                      .bytesIn = after.bytesIn - before.bytesIn,
                      .bytesOut = after.bytesOut - before.bytesOut,
                      .unanswered = after.unanswered - before.unanswered,
                      .pictures = after.pictures - before.pictures,
                      .pictureBytes = after.pictureBytes - before.pictureBytes,
                      .silentReads = after.silentReads - before.silentReads,
                      .late = after.late - before.late};
  std::ranges::transform(after.failures, before.failures, counts.failures.begin(), std::minus<>());
  return counts;
}

}  // namespace

void DeviceTally::Add(const PendingUrb& urb, const UsbEvent& completion, Clock::time_point now) {
  ++mTotal.transfers;
  (urb.IsIn() ? mTotal.bytesIn : mTotal.bytesOut) += completion.length;
  if (urb.isPicture && completion.status == 0 && completion.length > 0) {
    ++mTotal.pictures;
    mTotal.pictureBytes += completion.length;
    mLastPicture = now;
  } else if (urb.isPicture && completion.status == -kGuestTimedOut) {
    ++mTotal.silentReads;
  } else if (completion.status != 0) {
    ++At(FailureOf(completion.status));
  }
  if (IsTimed(urb)) {
    mRoundTrips.Add(now - urb.begin);
  }
}

DeviceFigures DeviceTally::Take(Clock::time_point now) {
  DeviceFigures figures;
  figures.seconds = std::chrono::duration<double>(now - std::exchange(mTakenAt, now)).count();
  figures.lately = Between(std::exchange(mTaken, mTotal), mTotal);
  figures.total = mTotal;
  if (mRoundTrips.Count() > 0) {
    figures.roundTripP50 = mRoundTrips.Milliseconds(0.50);
    figures.roundTripP99 = mRoundTrips.Milliseconds(0.99);
    mRoundTrips.Clear();
  }
  if (mLastPicture) {
    figures.pictureAge = std::chrono::duration<double>(now - *mLastPicture).count();
  }
  return figures;
}

}  // namespace vel
