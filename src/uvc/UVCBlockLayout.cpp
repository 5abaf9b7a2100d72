#include "uvc/UVCBlockLayout.h"

#include "base/VelLog.h"
#include "protocol/ByteReader.h"
#include "uvc/UVCDescriptors.h"
#include "uvc/UvcCodes.h"

namespace vel {
namespace {

constexpr std::size_t kMinLength = 2;  // Of any descriptor: its length and its type.
constexpr std::size_t kSubtypeAt = offsetof(UVCFrameDesc, bDescriptorSubtype);
constexpr std::size_t kNumFormatsAt = offsetof(UVCInputHeader, bNumFormats);
constexpr std::size_t kTotalLengthAt = offsetof(UVCInputHeader, wTotalLength);
constexpr std::size_t kNumFramesAt = offsetof(UVCFormatDesc, bNumFrameDescriptors);
constexpr std::size_t kIntervalTypeAt = offsetof(UVCFrameDesc, bFrameIntervalType);
constexpr std::size_t kIntervalRoom = sizeof(UVCFrameDesc::dwFrameInterval) / 4;

// Hands out whole descriptors until one is not whole, and none from then on.
class DescriptorCursor {
 public:
  explicit DescriptorCursor(std::span<const std::uint8_t> block) : mReader(block), mSize(block.size()) {}

  // The next descriptor, which has to be there.
  std::span<const std::uint8_t> Next() {
    const std::span<const std::uint8_t> next = Peek();
    if (next.empty()) {
      Stop();
    }
    mReader.Skip(next.size());
    return next;
  }

  // The next descriptor if it is of this subtype; the block may end here.
  std::span<const std::uint8_t> NextOf(std::uint8_t subtype) {
    const std::span<const std::uint8_t> next = Peek();
    if (next.empty() && !mReader.Rest().empty()) {
      Stop();
    }
    return DescriptorByte(next, kSubtypeAt) == subtype ? Next() : std::span<const std::uint8_t>{};
  }

  bool Stopped() const { return mStopped; }

 private:
  // Empty when the next descriptor is not whole.
  std::span<const std::uint8_t> Peek() const {
    const std::span<const std::uint8_t> rest = mReader.Rest();
    const bool whole = rest.size() >= kMinLength && rest[0] >= kMinLength && rest[0] <= rest.size();
    return whole ? rest.first(rest[0]) : std::span<const std::uint8_t>{};
  }

  void Stop() {
    if (!mStopped) {
      VEL_ERROR("video streaming descriptors are broken behind byte %zu of %zu", mSize - mReader.Rest().size(), mSize);
    }
    mStopped = true;
  }

  ByteReader mReader;
  const std::size_t mSize;
  bool mStopped = false;
};

// A descriptor that may be missing; that it is says the same line whichever it is.
std::span<const std::uint8_t> ReadOptional(DescriptorCursor& cursor, std::uint8_t subtype) {
  const std::span<const std::uint8_t> descriptor = cursor.NextOf(subtype);
  if (descriptor.empty() && !cursor.Stopped()) {
    VEL_ERROR("no still image desc found");
  }
  return descriptor;
}

void ReadFrames(DescriptorCursor& cursor, UVCFormatLayout& format) {
  const std::size_t count = DescriptorByte(format.descriptor, kNumFramesAt);
  while (format.frames.size() < count) {
    const std::span<const std::uint8_t> frame = cursor.Next();
    if (frame.empty()) {
      return;
    }
    const std::uint8_t intervals = DescriptorByte(frame, kIntervalTypeAt);
    if (intervals > kIntervalRoom) {
      VEL_ERROR("error: Unsupport camera interval type[%d]\n", int{intervals});
    }
    format.frames.push_back(frame);
  }
}

}  // namespace

UVCBlockLayout ReadUVCBlock(std::span<const std::uint8_t> block) {
  DescriptorCursor cursor(block);
  UVCBlockLayout layout;
  layout.inputHeader = cursor.Next();
  const std::size_t count = DescriptorByte(layout.inputHeader, kNumFormatsAt);
  while (layout.formats.size() < count && !cursor.Stopped()) {
    const std::span<const std::uint8_t> descriptor = cursor.Next();
    if (descriptor.empty()) {
      break;
    }
    UVCFormatLayout& format = layout.formats.emplace_back();
    format.descriptor = descriptor;
    ReadFrames(cursor, format);
    format.stillImage = ReadOptional(cursor, kVsStillImageFrame);
    format.colorMatching = ReadOptional(cursor, kVsColorFormat);
  }
  return layout;
}

std::size_t TrustedUVCBlockLength(const std::uint8_t* block) {
  std::size_t at = block[0];
  if (at <= kNumFormatsAt) {
    return at < kMinLength ? kMinLength : at;
  }
  const std::size_t total =
      at > kTotalLengthAt + 1 ? std::size_t{block[kTotalLengthAt]} | std::size_t{block[kTotalLengthAt + 1]} << 8U : 0;
  for (int formats = block[kNumFormatsAt]; formats > 0; --formats) {
    const std::uint8_t* const format = block + at;
    int descriptors = 1 + (format[0] > kNumFramesAt ? format[kNumFramesAt] : 0);
    for (; descriptors > 0; --descriptors) {
      if (block[at] < kMinLength) {
        return at + kMinLength;
      }
      at += block[at];
    }
    for (const std::uint8_t subtype : {kVsStillImageFrame, kVsColorFormat}) {
      const bool atEnd = total >= at && total - at <= kSubtypeAt;
      if (!atEnd && block[at] > kSubtypeAt && block[at + kSubtypeAt] == subtype) {
        at += block[at];
      }
    }
  }
  return at;
}

}  // namespace vel
