#ifndef VEL_CODEC_DECODED_PICTURE_H
#define VEL_CODEC_DECODED_PICTURE_H

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "codec/CodecTypes.h"
#include "codec/FfmpegPtr.h"
#include "codec/FrameBlocks.h"

namespace vel {

// A picture as a decoder of some type made it, with the ways to have it in that decoder's output format. The frame
// outlives it. Any thread.
class DecodedPicture {
 public:
  DecodedPicture(const AVFrame& frame, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format)
      : mFrame(frame), mType(type), mFormat(format) {}

  // Of the frame that it was decoded from.
  std::int64_t Index() const { return mFrame.pts; }
  // Pixels.
  int Width() const { return mFrame.width; }
  int Height() const { return mFrame.height; }

  // The bytes that it takes in the output format; 0 when this type of decoder has no such format.
  std::uint32_t Bytes() const;
  // Logs the pixel format, and an Error where it cannot be converted.
  void LogFormat() const;

  // What block a picture of this size takes, in either output format: width * height * 2 bytes.
  std::size_t BlockBytes() const;
  // Converts into such a block; writes nothing where that cannot be done.
  void Convert(std::uint8_t* out) const;
  // Makes the block black if the pixel format is not known, and so not going to be converted.
  void FillUnknownWithBlack(std::uint8_t* out) const;
  // Both, into a block of its own; null, with an Error line, when there is no memory.
  HeapBlock ToBlock() const;

  // As planar 4:2:0 without its bytes being touched: a frame on the same memory, with the chroma that a conversion to
  // YUYV and from there to planar would give. Only data, size and format of it are set. Null where that takes a
  // conversion.
  FramePtr AsPlanar420() const;

 private:
  const AVFrame& mFrame;
  const _UVC_DECODER_TYPE mType;
  const _UVC_DECODER_OUTPUT_FORMAT mFormat;
};

}  // namespace vel

#endif
