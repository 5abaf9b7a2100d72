#include "uvc/UVCBlockFilter.h"

#include <cstddef>
#include <cstring>

#include "uvc/UVCBlockLayout.h"
#include "uvc/UVCDescriptors.h"

namespace vel {
namespace {

std::uint32_t FrameHeight(std::span<const std::uint8_t> frame) {
  constexpr std::size_t kAt = offsetof(UVCFrameDesc, wHeight);
  return DescriptorByte(frame, kAt) | static_cast<std::uint32_t>(DescriptorByte(frame, kAt + 1)) << 8U;
}

// Moves descriptors to the front of their block. Each was behind the end when its turn comes, so none is overwritten
// before.
class Compactor {
 public:
  explicit Compactor(std::span<std::uint8_t> block) : mBlock(block) {}

  // Where it is now.
  std::span<std::uint8_t> Keep(std::span<const std::uint8_t> descriptor) {
    const std::span<std::uint8_t> place = mBlock.subspan(mEnd, descriptor.size());
    if (!descriptor.empty() && place.data() != descriptor.data()) {
      std::memmove(place.data(), descriptor.data(), descriptor.size());
    }
    mEnd += descriptor.size();
    return place;
  }

  std::size_t End() const { return mEnd; }

 private:
  const std::span<std::uint8_t> mBlock;
  std::size_t mEnd = 0;
};

void Put(std::span<std::uint8_t> descriptor, std::size_t index, std::size_t value) {
  if (index < descriptor.size()) {
    descriptor[index] = static_cast<std::uint8_t>(value);
  }
}

void KeepFormat(Compactor& compactor, const UVCFormatLayout& format, std::uint32_t maxHeight) {
  const std::span<std::uint8_t> descriptor = compactor.Keep(format.descriptor);
  std::size_t kept = 0;
  for (const std::span<const std::uint8_t> frame : format.frames) {
    if (FrameHeight(frame) <= maxHeight) {
      compactor.Keep(frame);
      ++kept;
    }
  }
  Put(descriptor, offsetof(UVCFormatDesc, bNumFrameDescriptors), kept);
  compactor.Keep(format.stillImage);
  compactor.Keep(format.colorMatching);
}

}  // namespace

std::uint32_t FilterUVCBlock(std::span<std::uint8_t> block, std::uint32_t maxHeight) {
  const UVCBlockLayout layout = ReadUVCBlock(block);
  if (layout.inputHeader.empty()) {
    return static_cast<std::uint32_t>(block.size());
  }
  Compactor compactor(block);
  const std::span<std::uint8_t> header = compactor.Keep(layout.inputHeader);
  for (const UVCFormatLayout& format : layout.formats) {
    KeepFormat(compactor, format, maxHeight);
  }
  constexpr std::size_t kTotalLengthAt = offsetof(UVCInputHeader, wTotalLength);
  Put(header, offsetof(UVCInputHeader, bNumFormats), layout.formats.size());
  Put(header, kTotalLengthAt, compactor.End());
  Put(header, kTotalLengthAt + 1, compactor.End() >> 8U);
  return static_cast<std::uint32_t>(compactor.End());
}

}  // namespace vel
