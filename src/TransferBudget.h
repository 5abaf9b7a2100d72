#ifndef VEL_TRANSFER_BUDGET_H
#define VEL_TRANSFER_BUDGET_H

#include <atomic>
#include <cstdint>

namespace vel {

// Counts what waits for one device, bytes and pending transfers, and refuses what would go over its bounds. Any thread.
class TransferBudget {
 public:
  TransferBudget(std::uint64_t maxBytes, std::uint32_t maxTransfers)
      : mMaxBytes(maxBytes), mMaxTransfers(maxTransfers) {}

  bool Take(std::uint64_t bytes) {
    if (mTaken.fetch_add(bytes, std::memory_order_relaxed) + bytes <= mMaxBytes) {
      return true;
    }
    Return(bytes);
    return false;
  }
  // Counts bytes whether or not they fit.
  void Add(std::uint64_t bytes) { mTaken.fetch_add(bytes, std::memory_order_relaxed); }
  void Return(std::uint64_t bytes) { mTaken.fetch_sub(bytes, std::memory_order_relaxed); }
  std::uint64_t Taken() const { return mTaken.load(std::memory_order_relaxed); }

  // One transfer and all the bytes that it holds, above 0.
  bool TakeTransfer(std::uint64_t bytes) {
    if (mTransfers.fetch_add(1, std::memory_order_relaxed) < mMaxTransfers && Take(bytes)) {
      return true;
    }
    mTransfers.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  void ReturnTransfer(std::uint64_t bytes) {
    Return(bytes);
    mTransfers.fetch_sub(1, std::memory_order_relaxed);
  }

 private:
  const std::uint64_t mMaxBytes;
  const std::uint32_t mMaxTransfers;
  std::atomic<std::uint64_t> mTaken{0};
  std::atomic<std::uint32_t> mTransfers{0};
};

}  // namespace vel

#endif
