#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_PAYLOADS_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_PAYLOADS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace vel {

// The payloads by which a camera sends its pictures, with what goes wrong on the way. One thread at a time.
class MockPayloads {
 public:
  using Bytes = std::vector<std::uint8_t>;
  // What happens to how many of 1000 packets: lost on the bus, sent with the error bit and again without, preceded by
  // one that is a header alone.
  struct Faults {
    unsigned lost = 0;
    unsigned errors = 0;
    unsigned headersAlone = 0;
  };

  MockPayloads(const Faults& faults, int packetsPerFrame) : mFaults(faults), mPacketsPerFrame(packetsPerFrame) {}

  // From the first of these pictures on, whatever was under way.
  void Show(std::vector<Bytes> pictures) {
    mPictures = std::move(pictures);
    mFrames = mAllowed = mGap = mSpent = 0;
    mOffset = 0;
    mResends = false;
    mArrived.clear();
    mSent.clear();
  }
  void Allow(int frames) { mAllowed += frames; }
  // What was sent of each frame and not lost, in order.
  const std::vector<Bytes>& Sent() const { return mSent; }

  // The next frame is due later, however many are allowed.
  bool IsBetweenFrames() const { return mGap > 0; }
  void SkipGap() { mGap = 0; }
  bool HasData() const { return mGap == 0 && mFrames < mAllowed; }
  // Writes the next payload, of at most `room` bytes, a header alone when there is no data. How much it is; negative
  // when it is lost.
  int Next(std::span<std::uint8_t> room) {
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

 private:
  static constexpr std::size_t kHeaderBytes = 12;
  static constexpr unsigned kEof = 2;
  static constexpr unsigned kErr = 0x40;

  int Header(std::span<std::uint8_t> room, unsigned flags) const {
    std::ranges::fill(room.first(kHeaderBytes), std::uint8_t{0xEE});
    room[0] = kHeaderBytes;
    room[1] = static_cast<std::uint8_t>(mFid | 0x80U | flags);
    return static_cast<int>(kHeaderBytes);
  }

  const Faults mFaults;
  const int mPacketsPerFrame;
  std::vector<Bytes> mPictures;
  int mAllowed = 0;
  int mFrames = 0;          // Begun and ended.
  std::size_t mOffset = 0;  // In the picture.
  int mGap = 0;             // Packets until the next frame is due.
  int mSpent = 0;           // Packets for this one.
  std::uint8_t mFid = 0;
  bool mResends = false;
  Bytes mArrived;  // Of the frame under way.
  std::vector<Bytes> mSent;
  std::mt19937 mRandom{20240117};
};

}  // namespace vel

#endif
