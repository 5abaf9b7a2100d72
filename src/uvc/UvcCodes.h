// The numbers of the USB Video Class 1.1, an enum for each of its tables that the module uses. Plain enums: they are
// bytes on the wire.
#ifndef VEL_UVC_UVC_CODES_H
#define VEL_UVC_UVC_CODES_H

#include <array>
#include <cstddef>
#include <cstdint>

#include <libusb-1.0/libusb.h>

namespace vel {

// Table A-1.
enum UvcInterfaceClass : std::uint8_t {
  kUvcClassVideo = 14,
};

// Table A-2.
enum UvcInterfaceSubclass : std::uint8_t {
  kUvcVideoControl = 1,
  kUvcVideoStreaming = 2,
  kUvcInterfaceCollection = 3,
};

// Table A-6: descriptors of a video-streaming interface.
enum UvcVsSubtype : std::uint8_t {
  kVsInputHeader = 1,
  kVsStillImageFrame = 3,
  kVsFormatUncompressed = 4,
  kVsFrameUncompressed = 5,
  kVsFormatMjpeg = 6,
  kVsFrameMjpeg = 7,
  kVsColorFormat = 13,
};

// Table A-8.
enum UvcRequest : std::uint8_t {
  kUvcRequestUndefined = 0x00,
  kUvcSetCur = 0x01,
  kUvcGetCur = 0x81,
  kUvcGetMin = 0x82,
  kUvcGetMax = 0x83,
  kUvcGetRes = 0x84,
  kUvcGetLen = 0x85,
  kUvcGetInfo = 0x86,
  kUvcGetDef = 0x87,
};

// Table A-11: selectors of a video-streaming interface, in the high byte of wValue.
enum UvcVsControl : std::uint8_t {
  kVsProbeControl = 1,
  kVsCommitControl = 2,
};

// bmRequestType of a class request to an interface (USB 2.0, 9.3).
inline constexpr std::uint8_t kClassRequestOut = 0x21;
inline constexpr std::uint8_t kClassRequestIn = 0xA1;

// guidFormat of an uncompressed format, and its place in the descriptor (uncompressed payload 1.1, table 3-1).
inline constexpr std::size_t kGuidFormatAt = 5;
inline constexpr std::size_t kBitsPerPixelAt = 21;
inline constexpr std::array<std::uint8_t, 16> kGuidYuy2 = {0x59, 0x55, 0x59, 0x32, 0x00, 0x00, 0x10, 0x00,
                                                           0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

// The control selector of a class request.
constexpr std::uint8_t ControlSelector(std::uint16_t wValue) {
  return static_cast<std::uint8_t>(wValue >> 8U);
}

constexpr bool IsVideoStreaming(const libusb_interface_descriptor& setting) {
  return setting.bInterfaceClass == kUvcClassVideo && setting.bInterfaceSubClass == kUvcVideoStreaming;
}

}  // namespace vel

#endif
