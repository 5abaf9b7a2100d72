#ifndef VIRTUSB_HOST_REMOTE_REPLY_ID_BOOK_H
#define VIRTUSB_HOST_REMOTE_REPLY_ID_BOOK_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>

#include "vel/Mutex.h"

namespace vel {

// Remembers the reqID of each transfer request until its reply asks for it, oldest first where a stream id is used
// more than once. Requests that are never answered are forgotten after kGeneration later ones. Any thread.
class ReplyIdBook {
 public:
  static constexpr std::size_t kGeneration = 65536;

  void Note(std::uint16_t replyCommand, std::uint32_t streamId, std::uint8_t reqId);
  // 0 for a reply whose request is not known.
  std::uint8_t Take(std::uint16_t replyCommand, std::uint32_t streamId);

 private:
  using Generation = std::unordered_map<std::uint64_t, std::deque<std::uint8_t>>;

  static bool TakeFrom(Generation& generation, std::uint64_t key, std::uint8_t& reqId);

  Mutex mMutex;
  Generation mOld VEL_GUARDED_BY(mMutex);
  Generation mNew VEL_GUARDED_BY(mMutex);
  std::size_t mNewCount VEL_GUARDED_BY(mMutex) = 0;
};

}  // namespace vel

#endif
