#ifndef VEL_UVC_UVC_STREAM_CTRL_H
#define VEL_UVC_UVC_STREAM_CTRL_H

#include <bit>
#include <cstddef>
#include <cstdint>

namespace vel {

#pragma pack(push, 1)
// The video probe and commit control (UVC 1.1, 4.3.1.1), little-endian as on the wire, and one byte of this module
// behind it.
struct UVCStreamCtrl {
  std::uint16_t bmHint;
  std::uint8_t bFormatIndex;
  std::uint8_t bFrameIndex;
  std::uint32_t dwFrameInterval;  // 100 ns.
  std::uint16_t wKeyFrameRate;
  std::uint16_t wPFrameRate;
  std::uint16_t wCompQuality;
  std::uint16_t wCompWindowSize;
  std::uint16_t wDelay;                    // Milliseconds.
  std::uint32_t dwMaxVideoFrameSize;       // Bytes. The size of every frame block.
  std::uint32_t dwMaxPayloadTransferSize;  // Bytes, payload header included.
  std::uint32_t dwClockFrequency;          // Hz.
  std::uint8_t bmFramingInfo;
  std::uint8_t bPreferedVersion;
  std::uint8_t bMinVersion;
  std::uint8_t bMaxVersion;
  std::uint8_t bInterfaceNumber;  // Of the streaming interface; not sent.
};
#pragma pack(pop)
static_assert(sizeof(UVCStreamCtrl) == 35);
static_assert(offsetof(UVCStreamCtrl, wCompQuality) == 12);
static_assert(offsetof(UVCStreamCtrl, dwMaxVideoFrameSize) == 18);
static_assert(offsetof(UVCStreamCtrl, dwMaxPayloadTransferSize) == 22);
static_assert(offsetof(UVCStreamCtrl, bInterfaceNumber) == 34);
static_assert(std::endian::native == std::endian::little, "the block is copied as it lies");

// The largest frame that is believed to be one: more than any camera negotiates (8192 x 4096 in YUYV).
constexpr std::uint32_t kMaxVideoFrameSize = 64U << 20U;

// Whether a stream can be started with what a device negotiated.
constexpr bool IsFrameSizeUsable(const UVCStreamCtrl& ctrl) {
  return ctrl.dwMaxVideoFrameSize > 0 && ctrl.dwMaxVideoFrameSize <= kMaxVideoFrameSize;
}

}  // namespace vel

#endif
