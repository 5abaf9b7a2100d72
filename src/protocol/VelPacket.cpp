#include "protocol/VelPacket.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace vel {
namespace {

constexpr std::uint8_t kHostByteOrder = std::endian::native == std::endian::little ? 0 : 1;

template <class T>
T SwapBytes(T value) {
  T swapped = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    swapped = static_cast<T>((swapped << 8U) | (value & 0xFFU));
    value = static_cast<T>(value >> 8U);
  }
  return swapped;
}

}  // namespace

VelPacket::VelPacket(std::uint32_t capacity) noexcept
    : mBuffer(static_cast<std::uint8_t*>(std::malloc(std::max(capacity, kHeaderSize)))) {
  if (mBuffer == nullptr) {
    return;
  }
  mCapacity = std::max(capacity, kHeaderSize);
  std::memset(mBuffer.get(), 0, kHeaderSize);
  std::memcpy(mBuffer.get() + kLengthOffset, &kHeaderSize, sizeof kHeaderSize);
  InitHeader(0, 0, 0);
}

std::unique_ptr<VelPacket> VelPacket::TryMake(std::uint32_t capacity) noexcept {
  std::unique_ptr<VelPacket> packet(new (std::nothrow) VelPacket(capacity));
  return packet == nullptr || packet->mBuffer == nullptr ? nullptr : std::move(packet);
}

std::unique_ptr<VelPacket> VelPacket::ForReceived(std::span<const std::uint8_t, kHeaderSize> header,
                                                  std::uint32_t total) {
  auto packet = std::make_unique<VelPacket>(total);
  if (packet->mBuffer != nullptr) {
    total = std::max(total, kHeaderSize);
    std::memcpy(packet->mBuffer.get(), header.data(), kHeaderSize);
    std::memcpy(packet->mBuffer.get() + kLengthOffset, &total, sizeof total);
  }
  return packet;
}

int VelPacket::InitHeader(std::uint8_t reqId, std::uint16_t command, std::uint32_t devId) {
  if (mBuffer == nullptr) {
    return -1;
  }
  std::uint8_t* header = mBuffer.get();
  header[0] = kMagic;
  header[kReqIdOffset] = reqId;
  std::memcpy(header + kCommandOffset, &command, sizeof command);
  std::memcpy(header + kDevIdOffset, &devId, sizeof devId);
  header[kByteOrderOffset] = kHostByteOrder;
  mHeaderInitialised = true;
  return 0;
}

int VelPacket::Append(const void* data, std::uint32_t n) {
  if (mBuffer == nullptr) {
    return -1;
  }
  if (!mHeaderInitialised) {
    static_cast<void>(std::fputs("please init header first\n", stdout));
    return -1;
  }
  if (n > mCapacity - kHeaderSize) {
    static_cast<void>(std::fputs("payload size larger than packet size\n", stdout));
    return -1;
  }
  const std::uint32_t length = GetPacketSize();
  const std::uint64_t wanted = std::uint64_t{length} + n;
  if (wanted > std::numeric_limits<std::uint32_t>::max()) {
    return -1;
  }
  if (n > 0 && (wanted <= mCapacity || GrowTo(wanted))) {
    std::memcpy(mBuffer.get() + length, data, n);
  }
  const auto newLength = static_cast<std::uint32_t>(wanted);
  std::memcpy(mBuffer.get() + kLengthOffset, &newLength, sizeof newLength);
  return 0;
}

bool VelPacket::GrowTo(std::uint64_t size) {
  const std::uint64_t steps = (size - mCapacity + kGrowStep - 1) / kGrowStep;
  const std::uint64_t capacity = mCapacity + steps * kGrowStep;
  if (capacity > std::numeric_limits<std::uint32_t>::max()) {
    return false;
  }
  void* grown = std::realloc(mBuffer.get(), capacity);
  if (grown == nullptr) {
    return false;
  }
  static_cast<void>(mBuffer.release());  // realloc took it over.
  mBuffer.reset(static_cast<std::uint8_t*>(grown));
  if (const std::uint32_t length = GetPacketSize(); length > mCapacity) {
    // An earlier append could not grow: what it left out reads as zeros.
    std::fill(mBuffer.get() + mCapacity, mBuffer.get() + length, std::uint8_t{0});
  }
  mCapacity = static_cast<std::uint32_t>(capacity);
  return true;
}

template <class T>
T VelPacket::LoadHeader(std::size_t offset) const {
  T value = 0;
  if (mBuffer != nullptr) {
    std::memcpy(&value, mBuffer.get() + offset, sizeof value);
  }
  return value;
}

std::uint16_t VelPacket::GetCommand() const {
  return LoadHeader<std::uint16_t>(kCommandOffset);
}
std::uint32_t VelPacket::GetDevId() const {
  return LoadHeader<std::uint32_t>(kDevIdOffset);
}
std::uint8_t VelPacket::GetReqId() const {
  return LoadHeader<std::uint8_t>(kReqIdOffset);
}
std::uint32_t VelPacket::GetPacketSize() const {
  return LoadHeader<std::uint32_t>(kLengthOffset);
}

const std::uint8_t* VelPacket::GetPayload() const {
  return mBuffer == nullptr ? nullptr : mBuffer.get() + kHeaderSize + mCursor;
}

std::uint32_t VelPacket::GetPayloadSize() const {
  return mBuffer == nullptr ? 0 : GetPacketSize() - kHeaderSize - mCursor;
}

template <class T>
int VelPacket::Read(T* out) {
  if (mBuffer == nullptr || std::uint64_t{mCursor} + sizeof(T) > mCapacity - kHeaderSize) {
    return -1;
  }
  std::memcpy(out, mBuffer.get() + kHeaderSize + mCursor, sizeof(T));
  mCursor += static_cast<std::uint32_t>(sizeof(T));
  if (LoadHeader<std::uint8_t>(kByteOrderOffset) != kHostByteOrder) {
    *out = SwapBytes(*out);
  }
  return 0;
}

int VelPacket::ReadU32(std::uint32_t* out) {
  return Read(out);
}
int VelPacket::ReadU64(std::uint64_t* out) {
  return Read(out);
}

std::uint32_t VelPacket::BytesInBlock() const {
  return std::min(GetPacketSize(), mCapacity);
}

std::span<const std::uint8_t> VelPacket::PayloadBytes() const {
  return Wire().subspan(std::min(kHeaderSize + mCursor, BytesInBlock()));
}

std::span<const std::uint8_t> VelPacket::Wire() const {
  return {mBuffer.get(), BytesInBlock()};
}
std::span<std::uint8_t> VelPacket::MutableWire() {
  return {mBuffer.get(), BytesInBlock()};
}

}  // namespace vel
