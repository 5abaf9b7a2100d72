// What a decoder reads and what it makes.
#ifndef VEL_CODEC_CODEC_TYPES_H
#define VEL_CODEC_CODEC_TYPES_H

#include <cstdint>

namespace vel {

enum _UVC_DECODER_TYPE : std::uint32_t {
  UVC_DECODER_TYPE_H264 = 0,
  UVC_DECODER_TYPE_MJPEG = 1,
};

enum _UVC_DECODER_OUTPUT_FORMAT : std::uint32_t {
  UVC_DECODER_OUTPUT_I420 = 0,  // Of H.264 only.
  UVC_DECODER_OUTPUT_YUYV = 1,
};

}  // namespace vel

#endif
