#include "remote/PacketFramer.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "protocol/Commands.h"

namespace vel {
namespace {

constexpr std::uint8_t kHostByteOrder = std::endian::native == std::endian::little ? 0 : 1;
constexpr std::uint32_t kKeptOfOversized = VelPacket::kHeaderSize + 16;

std::uint16_t CommandIn(const std::uint8_t* header) {
  std::uint16_t command = 0;
  std::memcpy(&command, header + VelPacket::kCommandOffset, sizeof command);
  return command;
}

bool IsCommandOrReply(std::uint16_t code) {
  return FindCommand(code) != nullptr || FindCommand(static_cast<std::uint16_t>(code & ~1U)) != nullptr;
}

// Whether what should be a header begins as a record of TLS does, which can be shorter than one.
bool IsTls(std::span<const std::uint8_t> header) {
  constexpr std::uint8_t kAlert = 21;
  constexpr std::uint8_t kHandshake = 22;
  return header.size() > 1 && (header[0] == kAlert || header[0] == kHandshake) && header[1] == 3;
}

// A writer of the other byte order may have written the header in its own order or in this host's: the command tells.
void BringIntoHostOrder(std::array<std::uint8_t, VelPacket::kHeaderSize>& header) {
  if (header[VelPacket::kByteOrderOffset] == kHostByteOrder || IsCommandOrReply(CommandIn(header.data()))) {
    return;
  }
  std::array<std::uint8_t, VelPacket::kHeaderSize> swapped = header;
  std::reverse(swapped.begin() + VelPacket::kCommandOffset, swapped.begin() + VelPacket::kDevIdOffset);
  std::reverse(swapped.begin() + VelPacket::kDevIdOffset, swapped.begin() + VelPacket::kLengthOffset);
  std::reverse(swapped.begin() + VelPacket::kLengthOffset, swapped.begin() + VelPacket::kByteOrderOffset);
  if (IsCommandOrReply(CommandIn(swapped.data()))) {
    header = swapped;
  }
}

}  // namespace

std::span<const IoPiece> PacketFramer::Room() {
  const std::span<std::uint8_t> lacking = Lacking();
  mRoom = {IoPiece{lacking.data(), lacking.size()}, IoPiece{mBuffer.data(), mBuffer.size()}};
  return std::span(mRoom).subspan(lacking.empty() ? 1 : 0);
}

bool PacketFramer::Filled(std::size_t count) {
  const std::size_t inPacket = std::min(count, Lacking().size());
  if (inPacket > 0) {
    mFilled += inPacket;
    EndIfWhole();
  }
  return Feed(std::span(mBuffer).first(count - inPacket));
}

bool PacketFramer::Feed(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty() && mError.empty()) {
    if (mPacket == nullptr) {
      const std::size_t n = std::min(bytes.size(), mHeader.size() - mHeaderFilled);
      std::copy_n(bytes.begin(), n, mHeader.begin() + static_cast<std::ptrdiff_t>(mHeaderFilled));
      mHeaderFilled += n;
      bytes = bytes.subspan(n);
      if (IsTls(std::span(mHeader).first(mHeaderFilled))) {
        mError = "it speaks TLS (tls://HOST:PORT is for \"serve --tls DIR\", tcp:// for one without)";
        return false;
      }
      if (mHeaderFilled == mHeader.size() && !BeginPacket()) {
        return false;
      }
    } else {
      const std::span<std::uint8_t> lacking = Lacking();
      const std::size_t n = std::min(bytes.size(), lacking.size());
      std::copy_n(bytes.begin(), n, lacking.begin());
      mFilled += n;
      const std::size_t skipped = std::min(bytes.size() - n, mToSkip);
      mToSkip -= skipped;
      bytes = bytes.subspan(n + skipped);
    }
    EndIfWhole();
  }
  return mError.empty();
}

bool PacketFramer::BeginPacket() {
  BringIntoHostOrder(mHeader);
  std::uint32_t length = 0;
  std::memcpy(&length, mHeader.data() + VelPacket::kLengthOffset, sizeof length);
  if (mHeader[0] != VelPacket::kMagic || length < VelPacket::kHeaderSize) {
    mError = "the stream holds no packet: magic " + std::to_string(mHeader[0]) + ", length " + std::to_string(length) +
             " (a packet begins with " + std::to_string(VelPacket::kMagic) + " and has at least " +
             std::to_string(VelPacket::kHeaderSize) + " bytes)";
    return false;
  }
  const std::uint32_t kept = length > kMaxPacketBytes ? kKeptOfOversized : length;
  mToSkip = length - kept;
  mPacket = VelPacket::ForReceived(mHeader, kept);
  if (mPacket->GetCapacity() < kept) {
    mError = "no memory for a packet of " + std::to_string(kept) + " bytes";
    mPacket.reset();
    return false;
  }
  mFilled = VelPacket::kHeaderSize;
  return true;
}

void PacketFramer::EndIfWhole() {
  if (mPacket != nullptr && mFilled == mPacket->GetPacketSize() && mToSkip == 0) {
    mHeaderFilled = 0;
    mSink(std::move(mPacket));
  }
}

std::span<std::uint8_t> PacketFramer::Lacking() const {
  return mPacket == nullptr ? std::span<std::uint8_t>() : mPacket->MutableWire().subspan(mFilled);
}

}  // namespace vel
