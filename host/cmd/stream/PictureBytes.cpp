#include "cmd/stream/PictureBytes.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace vel {
namespace {

using PictureView = std::span<const std::uint8_t>;

bool BeginsWith(PictureView picture, PictureView start) {
  return picture.size() >= start.size() && std::ranges::equal(picture.first(start.size()), start);
}

bool IsJpeg(PictureView picture) {
  constexpr std::array<std::uint8_t, 3> kStartOfImage = {0xFF, 0xD8, 0xFF};
  return BeginsWith(picture, kStartOfImage);
}

// H.264, annex B: a start code of three or four bytes.
bool IsAccessUnit(PictureView picture) {
  constexpr std::array<std::uint8_t, 3> kShort = {0, 0, 1};
  constexpr std::array<std::uint8_t, 4> kLong = {0, 0, 0, 1};
  return BeginsWith(picture, kShort) || BeginsWith(picture, kLong);
}

}  // namespace

std::optional<PictureFormat> FormatOfPicture(PictureView picture, const GuestCamera::Stream& stream) {
  const PictureFormat agreed = stream.mode.format;
  const std::size_t rawBytes = std::size_t{2} * stream.mode.width * stream.mode.height;
  const bool maybeRaw = agreed == PictureFormat::kYuyv;
  if (maybeRaw && picture.size() == rawBytes) {
    return PictureFormat::kYuyv;
  }
  if ((maybeRaw || agreed == PictureFormat::kMjpeg) && IsJpeg(picture)) {
    return PictureFormat::kMjpeg;  // An emulated camera may have nothing else.
  }
  if ((maybeRaw || agreed == PictureFormat::kH264) && IsAccessUnit(picture)) {
    return PictureFormat::kH264;
  }
  return agreed == PictureFormat::kOther && !picture.empty() ? std::optional(agreed) : std::nullopt;
}

bool IsKeyPicture(PictureFormat format, PictureView picture) {
  if (format != PictureFormat::kH264) {
    return true;
  }
  constexpr std::array<std::uint8_t, 3> kStartCode = {0, 0, 1};
  constexpr std::uint8_t kIdrSlice = 5;  // H.264, table 7-1
  constexpr std::uint8_t kSlice = 1;
  auto at = picture.begin();
  while (true) {
    at = std::search(at, picture.end(), kStartCode.begin(), kStartCode.end());
    if (static_cast<std::size_t>(picture.end() - at) <= kStartCode.size()) {
      return false;
    }
    at += kStartCode.size();
    const auto type = static_cast<std::uint8_t>(*at & 0x1FU);
    if (type == kIdrSlice || type == kSlice) {
      return type == kIdrSlice;  // The first slice tells; what follows is large.
    }
  }
}

}  // namespace vel
