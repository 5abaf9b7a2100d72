#ifndef VIRTUSB_FUZZ_PIECES_H
#define VIRTUSB_FUZZ_PIECES_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Require.h"

namespace vel {

// A byte stream in pieces of these sizes, in turn; a size of 0 is the whole rest.
class Pieces {
 public:
  Pieces(std::span<const std::uint8_t> stream, std::span<const std::uint8_t> sizes) : mRest(stream), mSizes(sizes) {}

  bool AtEnd() const { return mRest.empty(); }
  // Of at most so many bytes.
  std::span<const std::uint8_t> Next(std::size_t most = SIZE_MAX) {
    const std::size_t wanted = mSizes.empty() ? 0 : mSizes[mCount++ % mSizes.size()];
    const auto piece = mRest.first(std::min({wanted == 0 ? mRest.size() : wanted, mRest.size(), most}));
    mRest = mRest.subspan(piece.size());
    return piece;
  }

 private:
  std::span<const std::uint8_t> mRest;
  const std::span<const std::uint8_t> mSizes;
  std::size_t mCount = 0;
};

// `read` gives the same for a stream in pieces as for the whole. Input: 4 bytes with their sizes, then the stream.
template <class Read>
void RequireSameInPieces(std::span<const std::uint8_t> input, Read read) {
  const auto sizes = input.first(std::min<std::size_t>(4, input.size()));
  const auto stream = input.subspan(sizes.size());
  Require(read(Pieces(stream, sizes)) == read(Pieces(stream, {})), "pieces give what the whole gives");
}

}  // namespace vel

#endif
