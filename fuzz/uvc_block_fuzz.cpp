// A raw block of video-streaming descriptors, parsed, searched and filtered. Input: 2 bytes with
// the height limit, then the block.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Require.h"
#include "oskelo/log.h"
#include "policys/UVCBlockLayout.h"
#include "policys/UVCUtil.h"
#include "protocol/ByteReader.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Exact(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

std::span<const UVCFormatDesc> Formats(const UVCInputHeaderPtr& header) {
  return header == nullptr ? std::span<const UVCFormatDesc>{} : std::span(header->formats, header->bNumFormats);
}

std::span<const UVCFrameDesc> FramesOf(const UVCFormatDesc& format) {
  return {format.frames, format.bNumFrameDescriptors};
}

// The frames of a tree that are not taller than the limit.
std::size_t CountFrames(const UVCInputHeaderPtr& header, std::uint32_t maxHeight) {
  std::size_t count = 0;
  for (const UVCFormatDesc& format : Formats(header)) {
    count += static_cast<std::size_t>(std::ranges::count_if(
        FramesOf(format), [maxHeight](const UVCFrameDesc& frame) { return frame.wHeight <= maxHeight; }));
  }
  return count;
}

void CheckCopies(const UVCInputHeaderPtr& header, const Bytes& block) {
  for (const UVCFormatDesc& format : Formats(header)) {
    for (const std::uint8_t* copy : {format.stillImage, format.colorMatching}) {
      Require(copy == nullptr || std::search(block.begin(), block.end(), copy, copy + copy[0]) != block.end(),
              "a descriptor is copied as it was");
    }
  }
}

void LookUp(const UVCInputHeaderPtr& header) {
  const auto formats = Formats(header);
  for (unsigned format = 0; format <= std::min<std::size_t>(formats.size() + 1, 255); ++format) {
    for (const unsigned frame : {0U, 1U, 2U, 3U, 254U, 255U}) {
      const UVCFrameDesc* const found =
          UVCUtil::GetFrameTypeDesc(header.get(), static_cast<std::uint8_t>(format), static_cast<std::uint8_t>(frame));
      Require(found == nullptr || std::any_of(formats.begin(), formats.end(),
                                              [&](const UVCFormatDesc& candidate) {
                                                return frame <= candidate.bNumFrameDescriptors &&
                                                       found == candidate.frames + (frame - 1);
                                              }),
              "a frame that is found is in the tree");
    }
  }
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
  filtered = Exact(std::span(filtered).first(length));
  const UVCInputHeaderPtr after = UVCUtil::ParseUVCInputHeader(std::span<const std::uint8_t>(filtered));
  Require(after != nullptr && after->bNumFormats == before->bNumFormats, "every format stays");
  Require(CountFrames(after, UINT32_MAX) == CountFrames(before, maxHeight),
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
  const vel::Bytes block = vel::Exact(reader.Rest());
  const vel::UVCInputHeaderPtr header = vel::UVCUtil::ParseUVCInputHeader(std::span(block));
  vel::CheckCopies(header, block);
  vel::LookUp(header);
  vel::Filter(block, maxHeight);
  return 0;
}
