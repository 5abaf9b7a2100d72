#include "remote/ReplyIdBook.h"

#include <utility>

namespace vel {
namespace {

std::uint64_t KeyOf(std::uint16_t replyCommand, std::uint32_t streamId) {
  return (std::uint64_t{replyCommand} << 32U) | streamId;
}

}  // namespace

void ReplyIdBook::Note(std::uint16_t replyCommand, std::uint32_t streamId, std::uint8_t reqId) {
  const MutexLock lock(mMutex);
  if (mNewCount == kGeneration) {
    mOld = std::exchange(mNew, {});
    mNewCount = 0;
  }
  mNew[KeyOf(replyCommand, streamId)].push_back(reqId);
  ++mNewCount;
}

std::uint8_t ReplyIdBook::Take(std::uint16_t replyCommand, std::uint32_t streamId) {
  const std::uint64_t key = KeyOf(replyCommand, streamId);
  std::uint8_t reqId = 0;
  const MutexLock lock(mMutex);
  if (!TakeFrom(mOld, key, reqId)) {
    TakeFrom(mNew, key, reqId);
  }
  return reqId;
}

bool ReplyIdBook::TakeFrom(Generation& generation, std::uint64_t key, std::uint8_t& reqId) {
  const auto found = generation.find(key);
  if (found == generation.end()) {
    return false;
  }
  reqId = found->second.front();
  found->second.pop_front();
  if (found->second.empty()) {
    generation.erase(found);
  }
  return true;
}

}  // namespace vel
