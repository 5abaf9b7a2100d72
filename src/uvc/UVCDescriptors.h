// The video-streaming descriptors of a camera as a tree of packed records (UVC 1.1, 3.9.2).
#ifndef VEL_UVC_UVC_DESCRIPTORS_H
#define VEL_UVC_UVC_DESCRIPTORS_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace vel {

#pragma pack(push, 1)
// Every frame descriptor is read with the layout of the uncompressed one.
struct UVCFrameDesc {
  std::uint8_t bLength;
  std::uint8_t bDescriptorType;
  std::uint8_t bDescriptorSubtype;
  std::uint8_t bFrameIndex;
  std::uint8_t bmCapabilities;
  std::uint16_t wWidth;   // Pixels.
  std::uint16_t wHeight;  // Pixels.
  std::uint32_t dwMinBitRate;
  std::uint32_t dwMaxBitRate;
  std::uint32_t dwMaxVideoFrameBufferSize;
  std::uint32_t dwDefaultFrameInterval;  // 100 ns.
  std::uint8_t bFrameIntervalType;       // 0: continuous. Otherwise the count of intervals, also
                                         // when it is above the room.
  std::uint32_t dwFrameInterval[5];
};
#pragma pack(pop)
static_assert(sizeof(UVCFrameDesc) == 46 && offsetof(UVCFrameDesc, wHeight) == 7 &&
              offsetof(UVCFrameDesc, bFrameIntervalType) == 25);
static_assert(std::endian::native == std::endian::little, "records are copied as they lie");

#pragma pack(push, 1)
// Uncompressed (27 bytes), MJPEG (11) or frame-based (28).
struct UVCFormatDesc {
  std::uint8_t bLength;
  std::uint8_t bDescriptorType;
  std::uint8_t bDescriptorSubtype;
  std::uint8_t bFormatIndex;
  std::uint8_t bNumFrameDescriptors;  // Records at `frames`.
  std::uint8_t rest[23];
  UVCFrameDesc* frames;
  std::uint8_t* stillImage;     // Its bLength bytes, or null.
  std::uint8_t* colorMatching;  // Its bLength bytes, or null.
};

struct UVCInputHeader {
  std::uint8_t bLength;
  std::uint8_t bDescriptorType;
  std::uint8_t bDescriptorSubtype;
  std::uint8_t bNumFormats;  // Records at `formats`.
  std::uint16_t wTotalLength;
  std::uint8_t bEndpointAddress;
  std::uint8_t bmInfo;
  std::uint8_t bTerminalLink;
  std::uint8_t bStillCaptureMethod;
  std::uint8_t bTriggerSupport;
  std::uint8_t bTriggerUsage;
  std::uint8_t bControlSize;
  UVCFormatDesc* formats;
};
#pragma pack(pop)
static_assert(offsetof(UVCFormatDesc, frames) == 28 && offsetof(UVCInputHeader, formats) == 13);
static_assert(sizeof(void*) != 8 || (sizeof(UVCFormatDesc) == 52 && sizeof(UVCInputHeader) == 21));

// Frees a tree: what the formats own, the formats, the header.
struct UVCInputHeaderDeleter {
  void operator()(UVCInputHeader* header) const;
};
using UVCInputHeaderPtr = std::unique_ptr<UVCInputHeader, UVCInputHeaderDeleter>;

struct UVCBlockLayout;

// The tree of a block that was read. Its counts are those of the records that it holds. Null without memory, and for a
// layout without input header.
UVCInputHeaderPtr MakeInputHeader(const UVCBlockLayout& layout);

}  // namespace vel

#endif
