#ifndef VEL_CODEC_FRAME_BLOCKS_H
#define VEL_CODEC_FRAME_BLOCKS_H

#include <cstddef>

#include "base/HeapBlock.h"

namespace vel {

// Frame-sized blocks on their way from the stage that has done with one to the stage that needs one: the allocator
// gives the pages of freed frames back to the system, and touching them anew costs many times a frame's copy.
//
// One store for the process, kept while it has users. Blocks are plain malloc blocks, so one may leave for good, and
// any malloc block may be given. Any thread.
class FrameBlocks {
 public:
  // Blocks below this size are cheap to allocate, and are not kept.
  static constexpr std::size_t kSmallest = std::size_t{64} << 10U;
  // Blocks kept at most for each user: a frame under assembly, one in each stage and queue.
  static constexpr std::size_t kBlocksForUser = 8;

  // Keeps the store open; with the last user it is emptied.
  class User {
   public:
    User();
    User(const User&) = delete;
    User& operator=(const User&) = delete;
    ~User();
  };

  // A block of at least `bytes` bytes with any content; null when there is no memory.
  [[nodiscard]] static HeapBlock Take(std::size_t bytes);

  // `bytes`: how many the block is known to have.
  static void Give(HeapBlock block, std::size_t bytes);
};

}  // namespace vel

#endif
