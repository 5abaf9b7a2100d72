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

VelPacket::VelPacket(std::uint8_t* block, bool ownBlock, std::uint32_t room, std::uint32_t capacity) noexcept
    : mBuffer(block), mOwnBlock(ownBlock) {
  if (mBuffer != nullptr) {
    mRoom = room;
    mCapacity = capacity;
    BeginHeader();
    InitHeader(0, 0, 0);
  }
}

VelPacket::VelPacket(std::uint32_t capacity) noexcept
    : VelPacket(static_cast<std::uint8_t*>(std::malloc(std::max(capacity, kHeaderSize))), true,
                std::max(capacity, kHeaderSize), std::max(capacity, kHeaderSize)) {}

VelPacket::~VelPacket() {
  if (mOwnBlock) {
    std::free(mBuffer);
  }
}

void* VelPacket::operator new(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

void* VelPacket::TakeMemory(std::unique_ptr<VelPacket>& packet, std::size_t size) noexcept {
  if (packet == nullptr || packet->mOwnBlock || packet->mRoom > kMostSpentRoom ||
      sizeof(VelPacket) + packet->mRoom < size) {
    return nullptr;
  }
  VelPacket* const block = packet.release();
  block->~VelPacket();
  return block;
}

void VelPacket::operator delete(void* block) {
  std::free(block);
}

std::unique_ptr<VelPacket> VelPacket::TryMake(std::uint32_t capacity, std::uint32_t payloadRoom) noexcept {
  capacity = std::max(capacity, kHeaderSize);
  const std::uint32_t room = std::max(kLeastRoom, kHeaderSize + std::min(payloadRoom, capacity - kHeaderSize));
  void* block = std::malloc(sizeof(VelPacket) + room);
  if (block == nullptr) {
    return nullptr;
  }
  auto* behind = static_cast<std::uint8_t*>(block) + sizeof(VelPacket);
  return std::unique_ptr<VelPacket>(::new (block) VelPacket(behind, false, room, capacity));
}

std::unique_ptr<VelPacket> VelPacket::TryMake(std::uint32_t capacity) noexcept {
  return TryMake(capacity, capacity);
}

std::unique_ptr<VelPacket> VelPacket::Make(std::uint32_t capacity) {
  auto packet = TryMake(capacity);
  if (packet == nullptr) {
    throw std::bad_alloc();
  }
  return packet;
}

std::unique_ptr<VelPacket> VelPacket::ForReceived(std::span<const std::uint8_t, kHeaderSize> header,
                                                  std::uint32_t total) {
  auto packet = TryMake(total);
  if (packet == nullptr) {
    return std::unique_ptr<VelPacket>(new VelPacket(nullptr, false, 0, 0));
  }
  total = std::max(total, kHeaderSize);
  std::memcpy(packet->mBuffer, header.data(), kHeaderSize);
  packet->SetLength(total);
  return packet;
}

void VelPacket::BeginHeader() {
  std::memset(mBuffer, 0, kHeaderSize);
  SetLength(kHeaderSize);
}

bool VelPacket::Restart(std::uint32_t capacity, std::uint32_t payloadRoom) {
  if (mBuffer == nullptr || mRoom - kHeaderSize < payloadRoom) {
    return false;
  }
  mCapacity = std::max(capacity, kHeaderSize);
  mCursor = 0;
  BeginHeader();
  return true;
}

int VelPacket::InitHeader(std::uint8_t reqId, std::uint16_t command, std::uint32_t devId) {
  if (mBuffer == nullptr) {
    return -1;
  }
  std::uint8_t* header = mBuffer;
  header[0] = kMagic;
  header[kReqIdOffset] = reqId;
  std::memcpy(header + kCommandOffset, &command, sizeof command);
  std::memcpy(header + kDevIdOffset, &devId, sizeof devId);
  header[kByteOrderOffset] = kHostByteOrder;
  mHeaderInitialised = true;
  return 0;
}

int VelPacket::AppendBeyond(const void* data, std::uint32_t n) {
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
  if (n > 0 && HasRoomFor(wanted)) {
    std::memcpy(mBuffer + length, data, n);
  }
  SetLength(static_cast<std::uint32_t>(wanted));
  return 0;
}

std::span<std::uint8_t> VelPacket::PayloadRoom() {
  return mBuffer == nullptr ? std::span<std::uint8_t>() : std::span(mBuffer, mRoom).subspan(kHeaderSize);
}

int VelPacket::AppendInPlace(std::uint32_t n) {
  const std::uint64_t wanted = std::uint64_t{GetPacketSize()} + n;
  if (wanted > Backed()) {
    return -1;
  }
  SetLength(static_cast<std::uint32_t>(wanted));
  return 0;
}

// Takes memory as far as the capacity, and steps beyond it as `size` wants.
bool VelPacket::HasRoomFor(std::uint64_t size) {
  if (size <= Backed()) {
    return true;
  }
  const std::uint64_t steps = size <= mCapacity ? 0 : (size - mCapacity + kGrowStep - 1) / kGrowStep;
  const std::uint64_t capacity = mCapacity + steps * kGrowStep;
  if (capacity > std::numeric_limits<std::uint32_t>::max() || (capacity > mRoom && !GrowTo(capacity))) {
    return false;
  }
  mCapacity = static_cast<std::uint32_t>(capacity);
  return true;
}

bool VelPacket::GrowTo(std::uint64_t room) {
  auto* grown = static_cast<std::uint8_t*>(std::realloc(mOwnBlock ? mBuffer : nullptr, room));
  if (grown == nullptr) {
    return false;
  }
  if (!mOwnBlock) {
    std::memcpy(grown, mBuffer, mRoom);
  }
  mBuffer = grown;
  mOwnBlock = true;
  if (const std::uint32_t length = GetPacketSize(); length > Backed()) {
    // An earlier append could not grow: what it left out reads as zeros.
    std::fill(mBuffer + Backed(), mBuffer + length, std::uint8_t{0});
  }
  mRoom = static_cast<std::uint32_t>(room);
  return true;
}

const std::uint8_t* VelPacket::GetPayload() const {
  return kHeaderSize + mCursor > Backed() ? nullptr : mBuffer + kHeaderSize + mCursor;
}

std::uint32_t VelPacket::GetPayloadSize() const {
  return mBuffer == nullptr ? 0 : GetPacketSize() - kHeaderSize - mCursor;
}

template <class T>
int VelPacket::Read(T* out) {
  if (mBuffer == nullptr || std::uint64_t{mCursor} + sizeof(T) > mCapacity - kHeaderSize) {
    return -1;
  }
  *out = 0;
  if (std::uint64_t{kHeaderSize} + mCursor + sizeof(T) <= Backed()) {  // Nobody has written what lies beyond.
    std::memcpy(out, mBuffer + kHeaderSize + mCursor, sizeof(T));
  }
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

}  // namespace vel
