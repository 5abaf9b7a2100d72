#include "far/PayloadCutter.h"

#include <algorithm>

namespace vel {
namespace {

constexpr std::uint32_t kHeaderBytes = 2;
constexpr std::uint8_t kFrameId = 0x01;
constexpr std::uint8_t kEndOfFrame = 0x02;
constexpr std::uint8_t kEndOfHeader = 0x80;

}  // namespace

void PayloadCutter::Begin(std::span<const std::uint8_t> picture) {
  mRest = picture;
  mFrameId = mUncut ? mFrameId : !mFrameId;
  mUncut = true;
}

std::uint32_t PayloadCutter::Payload(std::uint32_t room) {
  if (mRest.empty() || room <= kHeaderBytes) {
    return 0;
  }
  const auto piece = mRest.first(std::min<std::size_t>(room - kHeaderBytes, mRest.size()));
  mRest = mRest.subspan(piece.size());
  mUncut = false;
  mBytes.push_back(kHeaderBytes);
  mBytes.push_back(kEndOfHeader | (mFrameId ? kFrameId : 0) | (mRest.empty() ? kEndOfFrame : 0));
  mBytes.insert(mBytes.end(), piece.begin(), piece.end());
  return kHeaderBytes + static_cast<std::uint32_t>(piece.size());
}

std::span<const std::uint8_t> PayloadCutter::Cut(std::span<UrbPacket> packets) {
  mBytes.clear();
  for (UrbPacket& packet : packets) {
    packet.actualLength = Payload(packet.length);
    packet.status = 0;
  }
  return mBytes;
}

std::span<const std::uint8_t> PayloadCutter::CutBulk(std::uint32_t length) {
  mBytes.clear();
  Payload(length == 0 ? 0 : length - 1);
  return mBytes;
}

}  // namespace vel
