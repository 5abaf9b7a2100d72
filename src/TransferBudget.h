#ifndef VEL_TRANSFER_BUDGET_H
#define VEL_TRANSFER_BUDGET_H

#include <atomic>
#include <cstdint>

namespace vel {

// Counts bytes that wait and refuses what would go over a bound. Any thread.
class TransferBudget {
 public:
  explicit TransferBudget(std::uint64_t limit) : mLimit(limit) {}

  bool Take(std::uint64_t bytes) {
    if (mTaken.fetch_add(bytes, std::memory_order_relaxed) + bytes <= mLimit) {
      return true;
    }
    Return(bytes);
    return false;
  }
  // Counts bytes whether or not they fit.
  void Add(std::uint64_t bytes) { mTaken.fetch_add(bytes, std::memory_order_relaxed); }
  void Return(std::uint64_t bytes) { mTaken.fetch_sub(bytes, std::memory_order_relaxed); }
  std::uint64_t Taken() const { return mTaken.load(std::memory_order_relaxed); }

 private:
  const std::uint64_t mLimit;
  std::atomic<std::uint64_t> mTaken{0};
};

}  // namespace vel

#endif
