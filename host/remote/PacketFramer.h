#ifndef VIRTUSB_HOST_REMOTE_PACKET_FRAMER_H
#define VIRTUSB_HOST_REMOTE_PACKET_FRAMER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>

#include "os/Fd.h"
#include "protocol/Requests.h"
#include "protocol/VelPacket.h"

namespace vel {

// Cuts a byte stream into packets by the length in their headers. One thread.
//
// A packet above kMaxPacketBytes is passed on with its fields only, its data is skipped: whoever handles it says
// that it is too short. A header that cannot be one ends the stream, since nothing says where the next packet begins.
class PacketFramer {
 public:
  using Sink = std::function<void(std::unique_ptr<VelPacket>)>;

  static constexpr std::uint32_t kMaxPacketBytes = kMaxTransferBytes + (64U << 10U);

  explicit PacketFramer(Sink sink) : mSink(std::move(sink)) {}

  // Where the next bytes of the stream are to be read to: what a packet still lacks, and a buffer for what is behind
  // it, so that a large packet's data is not copied. Valid until Filled.
  std::span<const IoPiece> Room();
  // `count` bytes have been read there. False once the stream cannot go on; Error() says why.
  bool Filled(std::size_t count);
  const std::string& Error() const { return mError; }
  // Whether the stream ended, or would end, inside a packet.
  bool InsidePacket() const { return mHeaderFilled > 0; }

 private:
  // Headers and small packets, several at once.
  static constexpr std::size_t kBufferBytes = 16U << 10U;

  bool Feed(std::span<const std::uint8_t> bytes);
  bool BeginPacket();
  void EndIfWhole();
  // What mPacket lacks.
  std::span<std::uint8_t> Lacking() const;

  const Sink mSink;
  std::array<std::uint8_t, VelPacket::kHeaderSize> mHeader{};
  std::size_t mHeaderFilled = 0;
  std::unique_ptr<VelPacket> mPacket;
  std::size_t mFilled = 0;  // Bytes of mPacket that are there.
  std::size_t mToSkip = 0;  // Bytes of an oversized packet that are still to come and be dropped.
  std::string mError;
  std::array<std::uint8_t, kBufferBytes> mBuffer;
  std::array<IoPiece, 2> mRoom{};
};

}  // namespace vel

#endif
