#ifndef VEL_UVC_UVC_PAYLOAD_HEADER_H
#define VEL_UVC_UVC_PAYLOAD_HEADER_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace vel {

// What is read of the header in front of each payload (UVC 1.1, 2.4.3.3). Its size is taken as fixed, whatever its
// length byte says: cameras send it with time stamps.
class UVCPayloadHeader {
 public:
  static constexpr std::size_t kSize = 12;  // Bytes.

  // `packet` holds at least kSize bytes.
  explicit UVCPayloadHeader(std::span<const std::uint8_t> packet) : mInfo(packet[1]) {}

  bool Fid() const { return (mInfo & 0x01U) != 0; }    // Toggles with each frame.
  bool Eof() const { return (mInfo & 0x02U) != 0; }    // The frame ends here.
  bool Error() const { return (mInfo & 0x40U) != 0; }  // The payload is not to be used.
  std::uint8_t Info() const { return mInfo; }

 private:
  std::uint8_t mInfo;
};

// Logs the first bytes of a payload header; an Error when `length` is below the header's size.
void ParseUVCFrameHeader(const std::uint8_t* packet, int length);

}  // namespace vel

#endif
