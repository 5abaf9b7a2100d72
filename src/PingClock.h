#ifndef VEL_PING_CLOCK_H
#define VEL_PING_CLOCK_H

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "base/LockOrder.h"

namespace vel {

// When the latest isochronous replies left, so that a ping from the remote side can close the measurement of one of
// them. Keeps the last replies only; a ping for an older one measures nothing. Any thread.
class PingClock {
 public:
  using Clock = std::chrono::steady_clock;

  void Sent(std::uint32_t streamId) {
    const Clock::time_point now = Clock::now();
    const MutexLock lock(mMutex);
    mEntries[streamId % mEntries.size()] = {streamId, now};
  }

  // The time since the reply left; nothing when it is not known. A reply is measured once.
  std::optional<Clock::duration> Arrived(std::uint32_t streamId) {
    const Clock::time_point now = Clock::now();
    const MutexLock lock(mMutex);
    Entry& entry = mEntries[streamId % mEntries.size()];
    if (entry.streamId != streamId || entry.sent == Clock::time_point{}) {
      return std::nullopt;
    }
    const Clock::duration elapsed = now - entry.sent;
    entry = {};
    return elapsed;
  }

 private:
  struct Entry {
    std::uint32_t streamId = 0;
    Clock::time_point sent;
  };

  Mutex mMutex VEL_LOCK_LEVEL(Leaf);
  std::array<Entry, 64> mEntries VEL_GUARDED_BY(mMutex);
};

}  // namespace vel

#endif
