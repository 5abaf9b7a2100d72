#include "uvc/UVCPayloadHeader.h"

#include "base/VelLog.h"

namespace vel {

void ParseUVCFrameHeader(const std::uint8_t* packet, int length) {
  if (packet == nullptr || length < static_cast<int>(UVCPayloadHeader::kSize)) {
    VEL_ERROR("Invalid header len:[%d]: ", length);
    return;
  }
  VEL_DEBUG("%x %x %x %x %x %x %x %x", unsigned{packet[0]}, unsigned{packet[1]}, unsigned{packet[2]},
            unsigned{packet[3]}, unsigned{packet[4]}, unsigned{packet[5]}, unsigned{packet[6]}, unsigned{packet[7]});
}

}  // namespace vel
