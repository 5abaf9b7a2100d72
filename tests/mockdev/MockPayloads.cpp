#include "mockdev/MockPayloads.h"

#include <algorithm>

namespace vel {
namespace {

constexpr std::size_t kHeaderBytes = 12;
constexpr unsigned kEof = 2;
constexpr unsigned kErr = 0x40;

}  // namespace

int MockPayloads::Header(std::span<std::uint8_t> room, unsigned flags) const {
  std::ranges::fill(room.first(kHeaderBytes), std::uint8_t{0xEE});
  room[0] = kHeaderBytes;
  room[1] = static_cast<std::uint8_t>(mFid | 0x80U | flags);
  return static_cast<int>(kHeaderBytes);
}

int MockPayloads::Next(std::span<std::uint8_t> room) {
  if (!HasData()) {
    mGap -= mGap > 0 ? 1 : 0;
    mFid ^= 1U;  // Of the frame before, which this ends again.
    const int moved = Header(room, kEof);
    mFid ^= 1U;
    return moved;
  }
  ++mSpent;
  const unsigned chance = static_cast<unsigned>(mRandom() % 1000);
  if (chance < mFaults.headersAlone) {
    return Header(room, 0);
  }
  const Bytes& picture = mPictures[static_cast<std::size_t>(mFrames) % mPictures.size()];
  const std::size_t count = std::min(room.size() - kHeaderBytes, picture.size() - mOffset);
  const bool ends = mOffset + count == picture.size();
  if (!mResends && chance < mFaults.headersAlone + mFaults.errors) {
    mResends = true;
    std::ranges::fill(room.subspan(kHeaderBytes, count), std::uint8_t{0xBD});
    return Header(room, kErr | (ends ? kEof : 0)) + static_cast<int>(count);
  }
  mResends = false;
  const bool lost = 999 - chance < mFaults.lost;
  const auto from = picture.begin() + static_cast<std::ptrdiff_t>(mOffset);
  if (!lost) {
    std::copy_n(from, count, room.begin() + kHeaderBytes);
    mArrived.insert(mArrived.end(), from, from + static_cast<std::ptrdiff_t>(count));
  }
  const int moved = Header(room, ends ? kEof : 0) + static_cast<int>(count);
  mOffset += count;
  if (ends) {
    mSent.push_back(std::exchange(mArrived, {}));
    ++mFrames;
    mOffset = 0;
    mFid ^= 1U;
    mGap = std::max(mPacketsPerFrame - std::exchange(mSpent, 0), 1);
  }
  return lost ? -1 : moved;
}

}  // namespace vel
