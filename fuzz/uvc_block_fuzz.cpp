// A raw block of video-streaming descriptors, parsed, searched and filtered. Input: 2 bytes with
// the height limit, then the block.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Require.h"
#include "oskelo/log.h"
#include "policys/UVCUtil.h"
#include "protocol/ByteReader.h"
#include "uvc/UVCBlockLayout.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

// The frames of a tree that are not taller than the limit.
std::size_t CountFrames(const UVCInputHeader& header, std::uint32_t maxHeight) {
  std::size_t count = 0;
  for (const UVCFormatDesc& format : std::span(header.formats, header.bNumFormats)) {
    count += static_cast<std::size_t>(
        std::ranges::count_if(std::span(format.frames, format.bNumFrameDescriptors),
                              [maxHeight](const UVCFrameDesc& frame) { return frame.wHeight <= maxHeight; }));
  }
  return count;
}

void Filter(const Bytes& block, std::uint32_t maxHeight) {
  const UVCInputHeaderPtr before = UVCUtil::ParseUVCInputHeader(std::span(block));
  Bytes filtered = block;
  const std::uint32_t length = UVCUtil::FilterFrameDescriptors(std::span(filtered), maxHeight);
  Require(length <= block.size(), "a filtered block is not longer");
  if (before == nullptr) {
    Require(length == block.size() && filtered == block, "a block without input header stays as it is");
    return;
  }
  filtered = Bytes(filtered.begin(), filtered.begin() + length);
  const UVCInputHeaderPtr after = UVCUtil::ParseUVCInputHeader(std::span<const std::uint8_t>(filtered));
  Require(after != nullptr && after->bNumFormats == before->bNumFormats, "every format stays");
  Require(CountFrames(*after, UINT32_MAX) == CountFrames(*before, maxHeight),
          "the frames that may stay do, and no other");
  Bytes again = filtered;
  Require(UVCUtil::FilterFrameDescriptors(std::span(again), maxHeight) == length && again == filtered,
          "a filtered block has nothing left to filter");
  constexpr std::size_t kTotalEnd = offsetof(UVCInputHeader, wTotalLength) + 2;
  if (filtered[0] >= kTotalEnd && length <= UINT16_MAX) {
    Require(after->wTotalLength == length, "the total is what was written");
    Require(TrustedUVCBlockLength(filtered.data()) == length, "a whole block ends where its counts say");
  }
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  vel::ByteReader reader(std::span(data, size));
  const std::uint32_t maxHeight = reader.Host<std::uint16_t>();
  const vel::Bytes block(reader.Rest().begin(), reader.Rest().end());
  const vel::UVCInputHeaderPtr header = vel::UVCUtil::ParseUVCInputHeader(std::span(block));
  for (unsigned index = 0; index <= UINT8_MAX; ++index) {
    const auto number = static_cast<std::uint8_t>(index);
    const vel::UVCFrameDesc* const found = vel::UVCUtil::GetFrameTypeDesc(header.get(), number, number);
    const auto holds = [found](const vel::UVCFormatDesc& format) {
      return found >= format.frames && found < format.frames + format.bNumFrameDescriptors;
    };
    vel::Require(found == nullptr || std::any_of(header->formats, header->formats + header->bNumFormats, holds),
                 "a frame that is found is in the tree");
  }
  vel::Filter(block, maxHeight);
  return 0;
}
