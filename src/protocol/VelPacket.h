#ifndef VEL_PROTOCOL_VEL_PACKET_H
#define VEL_PROTOCOL_VEL_PACKET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

namespace vel {

// One request or reply: a 16-byte header and a payload, in one growable block. docs/protocol.md has the layout.
//
// A packet has one owner at a time and no lock. Operations fail softly: with -1, 0 or null.
//
// The block lies behind the object, in the same allocation, where TryMake or Make made both; it becomes one of its own
// when it grows. Its capacity is what it may grow to without a further step; memory is taken for its room.
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
  ~VelPacket();

  // One allocation for object and block, whose first `payloadRoom` bytes behind the header are there at once. Null
  // without memory.
  static std::unique_ptr<VelPacket> TryMake(std::uint32_t capacity, std::uint32_t payloadRoom) noexcept;
  static std::unique_ptr<VelPacket> TryMake(std::uint32_t capacity) noexcept;
  // The same, but throws std::bad_alloc.
  static std::unique_ptr<VelPacket> Make(std::uint32_t capacity);

  // The memory of a packet that is not needed any more, as a malloc block. Null, and the packet as it was, when that is
  // less than `size` bytes, or far more.
  static void* TakeMemory(std::unique_ptr<VelPacket>& packet, std::size_t size) noexcept;

  // The object may head a larger malloc block.
  static void* operator new(std::size_t size);
  static void operator delete(void* block);

  // A packet as it came over the wire: `total` bytes (header included) of which the caller fills those behind the
  // header through MutableWire. The header's length field becomes `total`. Without memory it has no buffer.
  static std::unique_ptr<VelPacket> ForReceived(std::span<const std::uint8_t, kHeaderSize> header, std::uint32_t total);

  // Returns 0, or -1 without a buffer. Leaves the length as it is.
  int InitHeader(std::uint8_t reqId, std::uint16_t command, std::uint32_t devId);

  // Appends `n` bytes at the position that the header's length names and counts them. Returns 0, or -1
  // without a buffer, before InitHeader, and for n above capacity - 16.
  //
  // The size test looks at n alone, not at length + n: a second append may grow the packet, a first one may not.
  // When growing fails, nothing is copied and the length grows all the same; Wire() stays within the block.
  int Append(const void* data, std::uint32_t n) {
    const std::uint32_t length = GetPacketSize();
    if (!mHeaderInitialised || n > mCapacity - kHeaderSize || std::uint64_t{length} + n > Backed()) {
      return AppendBeyond(data, n);
    }
    if (n > 0) {
      std::memcpy(mBuffer + length, data, n);
    }
    SetLength(length + n);
    return 0;
  }

  // Makes it an empty packet of `capacity` again, with a header to be initialised; what lies in the block's room stays.
  // False and no change when the block has no room for `payloadRoom` bytes behind the header.
  bool Restart(std::uint32_t capacity, std::uint32_t payloadRoom);
  // The block behind the header, whatever the length says. Its bytes are undefined until they are written.
  std::span<std::uint8_t> PayloadRoom();
  // Appends the `n` bytes that lie at the position already, written to PayloadRoom. -1 when they are beyond it.
  int AppendInPlace(std::uint32_t n);

  std::uint16_t GetCommand() const { return LoadHeader<std::uint16_t>(kCommandOffset); }
  std::uint32_t GetDevId() const { return LoadHeader<std::uint32_t>(kDevIdOffset); }
  std::uint8_t GetReqId() const { return LoadHeader<std::uint8_t>(kReqIdOffset); }
  // Total length by the header, in bytes.
  std::uint32_t GetPacketSize() const { return LoadHeader<std::uint32_t>(kLengthOffset); }
  std::uint32_t GetCapacity() const { return mCapacity; }

  // The next payload byte to read, or null when the cursor is beyond what the block has room for.
  const std::uint8_t* GetPayload() const;
  // Bytes from the cursor to the header's length.
  std::uint32_t GetPayloadSize() const;

  // Read one value at the cursor and advance; swapped when the writer's byte order is not the host's. -1 and no
  // change when the value is not within the capacity.
  int ReadU32(std::uint32_t* out);
  int ReadU64(std::uint64_t* out);

  // The payload from the cursor on, never beyond the block whatever the header says.
  std::span<const std::uint8_t> PayloadBytes() const {
    return Wire().subspan(std::min(kHeaderSize + mCursor, BytesInBlock()));
  }
  // The whole packet as it travels, never beyond the block.
  std::span<const std::uint8_t> Wire() const { return {mBuffer, BytesInBlock()}; }
  std::span<std::uint8_t> MutableWire() { return {mBuffer, BytesInBlock()}; }

 private:
  // What every block has room for: a reply that is a status, or instead of the packet the record of a transfer.
  static constexpr std::uint32_t kLeastRoom = 120;
  static constexpr std::uint32_t kMostSpentRoom = 1024;

  template <class T>
  T LoadHeader(std::size_t offset) const {
    T value = 0;
    if (mBuffer != nullptr) {
      std::memcpy(&value, mBuffer + offset, sizeof value);
    }
    return value;
  }
  void SetLength(std::uint32_t length) { std::memcpy(mBuffer + kLengthOffset, &length, sizeof length); }
  // Append where it is refused, or needs more memory.
  int AppendBeyond(const void* data, std::uint32_t n);
  template <class T>
  int Read(T* out);
  // Of the capacity, what there is memory for.
  std::uint32_t Backed() const { return std::min(mRoom, mCapacity); }
  std::uint32_t BytesInBlock() const { return std::min(GetPacketSize(), Backed()); }
  // An empty packet in the block given: its own, or one behind the object. Null: without a buffer.
  VelPacket(std::uint8_t* block, bool ownBlock, std::uint32_t room, std::uint32_t capacity) noexcept;
  void BeginHeader();
  bool HasRoomFor(std::uint64_t size);
  bool GrowTo(std::uint64_t room);

  std::uint8_t* mBuffer;
  std::uint32_t mRoom = 0;  // Bytes of the block, header included.
  std::uint32_t mCapacity = 0;
  std::uint32_t mCursor = 0;
  bool mOwnBlock;  // The buffer is a malloc block of its own.
  bool mHeaderInitialised = false;
};

}  // namespace vel

#endif
