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

  bool Take(std::uint64_t bytes) { return TryAdd(bytes, UINT32_MAX); }
  // Counts bytes whether or not they fit.
  void Add(std::uint64_t bytes) { mTaken.fetch_add(bytes, std::memory_order_relaxed); }
  void Return(std::uint64_t bytes) { mTaken.fetch_sub(bytes, std::memory_order_relaxed); }
  std::uint64_t Taken() const { return mTaken.load(std::memory_order_relaxed) % kOneTransfer; }

  // One transfer and all the bytes that it holds, above 0, in exchange for `returned` bytes, which are returned in any
  // case.
  bool TakeTransfer(std::uint64_t bytes, std::uint64_t returned) {
    if (TryAdd(kOneTransfer + bytes - returned, mMaxTransfers)) {
      return true;
    }
    Return(returned);
    return false;
  }
  void ReturnTransfer(std::uint64_t bytes) { Return(kOneTransfer + bytes); }

 private:
  // Transfers are counted above the bytes, in one number, so that a request takes and returns both at once.
  static constexpr std::uint64_t kOneTransfer = 1ULL << 44U;

  bool TryAdd(std::uint64_t amount, std::uint32_t maxTransfers) {
    const std::uint64_t taken = mTaken.fetch_add(amount, std::memory_order_relaxed) + amount;
    if (taken % kOneTransfer <= mMaxBytes && taken / kOneTransfer <= maxTransfers) {
      return true;
    }
    Return(amount);
    return false;
  }

  const std::uint64_t mMaxBytes;
  const std::uint32_t mMaxTransfers;
  std::atomic<std::uint64_t> mTaken{0};
};

}  // namespace vel

#endif
