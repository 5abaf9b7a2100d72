#include "codec/FrameBlocks.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>
#include <vector>

#include "base/LockOrder.h"

namespace vel {
namespace {

struct Kept {
  HeapBlock block;
  std::size_t bytes;
};

struct Store {
  Mutex mutex VEL_LOCK_LEVEL(Leaf);
  std::size_t users VEL_GUARDED_BY(mutex) = 0;
  std::vector<Kept> blocks VEL_GUARDED_BY(mutex);
};

Store& TheStore() {
  static Store store;
  return store;
}

}  // namespace

FrameBlocks::User::User() {
  Store& store = TheStore();
  const MutexLock lock(store.mutex);
  store.blocks.reserve((store.users + 1) * kBlocksForUser);
  ++store.users;  // Now that Give finds room.
}

FrameBlocks::User::~User() {
  std::vector<Kept> unused;  // Freed after the lock.
  Store& store = TheStore();
  const MutexLock lock(store.mutex);
  if (--store.users == 0) {
    unused.swap(store.blocks);
  }
}

HeapBlock FrameBlocks::Take(std::size_t bytes) {
  if (bytes >= kSmallest) {
    Store& store = TheStore();
    const MutexLock lock(store.mutex);
    // The one given last is the most likely to be in the caches.
    const auto found = std::find_if(store.blocks.rbegin(), store.blocks.rend(),
                                    [bytes](const Kept& kept) { return kept.bytes >= bytes; });
    if (found != store.blocks.rend()) {
      HeapBlock block = std::move(found->block);
      store.blocks.erase(std::prev(found.base()));
      return block;
    }
  }
  return HeapBlock(static_cast<std::uint8_t*>(std::malloc(std::max<std::size_t>(bytes, 1))));
}

void FrameBlocks::Give(HeapBlock block, std::size_t bytes) {
  if (block == nullptr || bytes < kSmallest) {
    return;
  }
  HeapBlock oldest;  // Freed after the lock.
  Store& store = TheStore();
  const MutexLock lock(store.mutex);
  if (store.users == 0) {
    oldest = std::move(block);
    return;
  }
  if (store.blocks.size() >= store.users * kBlocksForUser) {
    oldest = std::move(store.blocks.front().block);
    store.blocks.erase(store.blocks.begin());
  }
  store.blocks.push_back({std::move(block), bytes});
}

}  // namespace vel
