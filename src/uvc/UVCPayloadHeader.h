#ifndef VEL_UVC_UVC_PAYLOAD_HEADER_H
#define VEL_UVC_UVC_PAYLOAD_HEADER_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace vel {

// What is read of the header in front of each payload (UVC 1.1, 2.4.3.3). Its size is taken as fixed, whatever its
// length byte says, unless that is to count: most cameras send it with time stamps, some do not.
class UVCPayloadHeader {
 public:
  static constexpr std::size_t kSize = 12;  // Bytes.

  // How long the header is that the packet begins with: kSize or, where its length byte counts and is what its flags
  // make it (2 bytes, 4 of a presentation time, 6 of a source clock), as long as that says.
  static std::size_t SizeOf(std::span<const std::uint8_t> packet, bool lengthCounts) {
    if (!lengthCounts || packet.size() < kFixed) {
      return kSize;
    }
    const std::size_t byFlags = kFixed + ((packet[1] & 0x04U) != 0 ? 4U : 0U) + ((packet[1] & 0x08U) != 0 ? 6U : 0U);
    return packet[0] == byFlags ? byFlags : kSize;
  }

  // `packet` holds at least a header of its size.
  explicit UVCPayloadHeader(std::span<const std::uint8_t> packet) : mInfo(packet[1]) {}

  bool Fid() const { return (mInfo & 0x01U) != 0; }    // Toggles with each frame.
  bool Eof() const { return (mInfo & 0x02U) != 0; }    // The frame ends here.
  bool Error() const { return (mInfo & 0x40U) != 0; }  // The payload is not to be used.
  std::uint8_t Info() const { return mInfo; }

 private:
  static constexpr std::size_t kFixed = 2;

  std::uint8_t mInfo;
};

// Logs the first bytes of a payload header; an Error when `length` is below the header's size.
void ParseUVCFrameHeader(const std::uint8_t* packet, int length);

}  // namespace vel

#endif
