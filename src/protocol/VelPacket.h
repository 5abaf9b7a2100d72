#ifndef VEL_PROTOCOL_VEL_PACKET_H
#define VEL_PROTOCOL_VEL_PACKET_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/HeapBlock.h"

namespace vel {

// One request or reply: a 16-byte header and a payload, in one growable block. docs/protocol.md has the layout.
//
// A packet has one owner at a time and no lock. Operations fail softly: with -1, 0 or null.
class VelPacket {
 public:
  static constexpr std::uint32_t kHeaderSize = 16;
  static constexpr std::uint8_t kMagic = 0x27;
  static constexpr std::uint32_t kGrowStep = 131072;

  // Offsets in the header.
  static constexpr std::size_t kReqIdOffset = 1;
  static constexpr std::size_t kCommandOffset = 2;
  static constexpr std::size_t kDevIdOffset = 4;
  static constexpr std::size_t kLengthOffset = 8;
  static constexpr std::size_t kByteOrderOffset = 12;

  // Allocates at least the header. A capacity that cannot be had leaves a packet without a buffer.
  explicit VelPacket(std::uint32_t capacity) noexcept;
  VelPacket(const VelPacket&) = delete;
  VelPacket& operator=(const VelPacket&) = delete;
  ~VelPacket() = default;

  // One with a buffer, or null without memory.
  static std::unique_ptr<VelPacket> TryMake(std::uint32_t capacity) noexcept;

  // A packet as it came over the wire: `total` bytes (header included) of which the caller fills those behind the
  // header through MutableWire. The header's length field becomes `total`.
  static std::unique_ptr<VelPacket> ForReceived(std::span<const std::uint8_t, kHeaderSize> header, std::uint32_t total);

  // Returns 0, or -1 without a buffer. Leaves the length as it is.
  int InitHeader(std::uint8_t reqId, std::uint16_t command, std::uint32_t devId);

  // Appends `n` bytes at the position that the header's length names and counts them. Returns 0, or -1
  // without a buffer, before InitHeader, and for n above capacity - 16.
  //
  // The size test looks at n alone, not at length + n: a second append may grow the packet, a first one may not.
  // When growing fails, nothing is copied and the length grows all the same; Wire() stays within the block.
  int Append(const void* data, std::uint32_t n);

  std::uint16_t GetCommand() const;
  std::uint32_t GetDevId() const;
  std::uint8_t GetReqId() const;
  // Total length by the header, in bytes.
  std::uint32_t GetPacketSize() const;
  std::uint32_t GetCapacity() const { return mCapacity; }

  // The next payload byte to read, or null when the cursor is beyond the block.
  const std::uint8_t* GetPayload() const;
  // Bytes from the cursor to the header's length.
  std::uint32_t GetPayloadSize() const;

  // Read one value at the cursor and advance; swapped when the writer's byte order is not the host's. -1 and no
  // change when the value is not within the capacity.
  int ReadU32(std::uint32_t* out);
  int ReadU64(std::uint64_t* out);

  // The payload from the cursor on, never beyond the block whatever the header says.
  std::span<const std::uint8_t> PayloadBytes() const;
  // The whole packet as it travels, never beyond the block.
  std::span<const std::uint8_t> Wire() const;
  std::span<std::uint8_t> MutableWire();

 private:
  template <class T>
  T LoadHeader(std::size_t offset) const;
  template <class T>
  int Read(T* out);
  std::uint32_t BytesInBlock() const;
  bool GrowTo(std::uint64_t size);

  std::uint32_t mCursor = 0;
  bool mHeaderInitialised = false;
  HeapBlock mBuffer;
  std::uint32_t mCapacity = 0;
};

}  // namespace vel

#endif
