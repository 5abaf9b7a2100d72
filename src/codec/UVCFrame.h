// The record of one video frame, and lists of them.
#ifndef VEL_CODEC_UVC_FRAME_H
#define VEL_CODEC_UVC_FRAME_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

#include "base/HeapBlock.h"
#include "base/ModuleExport.h"

namespace vel {

// What the two sides of the frame manager carry. Values without a name are raw types, which are neither decoded nor
// encoded.
enum _UVC_FRAME_TYPE : std::uint32_t {
  UVC_FRAME_TYPE_YUYV = 0,
  UVC_FRAME_TYPE_H264 = 2,
  UVC_FRAME_TYPE_MJPEG = 3,
  UVC_FRAME_TYPE_H265 = 4,
};

// Record and data are malloc blocks with one owner at a time, and are freed together.
#pragma pack(push, 1)
struct UVC_FRAME {
  std::uint8_t* data;
  std::uint32_t length;    // Valid bytes in `data`.
  std::uint32_t reserved;  // 0.
  std::uint32_t index;     // Sequence number, set by the frame's producer.
  std::int64_t timestamp;  // WallClockMs when the frame was complete.
  std::int64_t deltaTime;  // Milliseconds since the same producer's frame before.
};
#pragma pack(pop)
static_assert(sizeof(UVC_FRAME) == sizeof(void*) + 28);
static_assert(offsetof(UVC_FRAME, timestamp) == sizeof(void*) + 12);

// Pixels in a direction of a picture, for decoder, encoder and manager alike.
inline constexpr int kMaxPictureSide = 8192;
constexpr bool IsPictureSizeUsable(int width, int height) {
  return width <= kMaxPictureSide && height <= kMaxPictureSide;
}

// Data, which may be recycled (FrameBlocks), and record. Null is allowed.
VEL_MODULE_EXPORT void FreeUvcFrame(UVC_FRAME* frame);

struct UVCFrameDeleter {
  void operator()(UVC_FRAME* frame) const { FreeUvcFrame(frame); }
};
using UVCFramePtr = std::unique_ptr<UVC_FRAME, UVCFrameDeleter>;

// A frame that takes the block over; the other fields are 0. Null, with the block freed, when there is no memory.
VEL_MODULE_EXPORT UVCFramePtr MakeUvcFrame(HeapBlock data, std::uint32_t length, std::uint32_t index);

// The frame's data, which the frame then no longer has.
HeapBlock TakeFrameData(UVC_FRAME& frame);

using UVCFrameList = std::deque<UVCFramePtr>;

// See ThinFrames. Returns 0.
int FrameListResize(std::uint32_t cacheSize, UVCFrameList& list);

// Frees every frame. Returns 0.
int FrameListFlush(UVCFrameList& list);

}  // namespace vel

#endif
