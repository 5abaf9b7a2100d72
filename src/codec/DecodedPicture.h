#ifndef VEL_CODEC_DECODED_PICTURE_H
#define VEL_CODEC_DECODED_PICTURE_H

#include <cstddef>
#include <cstdint>

#include "codec/CodecTypes.h"
#include "codec/FfmpegPtr.h"

namespace vel {

// The picture as planar 4:2:0 without its bytes being touched: a frame on the same memory, with the chroma that a
// conversion to YUYV and from there to planar would give. Only data, size and format of it are set. Null where that
// takes a conversion.
FramePtr ViewAsPlanar420(const AVFrame& picture, _UVC_DECODER_TYPE type);

// What block a picture of this size takes, in either output format: width * height * 2 bytes.
std::size_t DecodedPictureBytes(const AVFrame& picture);

// Converts a picture of a decoder of this type into a block of DecodedPictureBytes. Returns the
// bytes that the picture takes there; 0, with an Error line, when this type has no such output
// format. In a pixel format that is not known the picture takes its bytes without writing them: see
// FillUnknownWithBlack.
std::uint32_t ConvertDecodedPicture(const AVFrame& picture, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format,
                                    std::uint8_t* out);

// Makes the block black, if the conversion is not going to write it.
void FillUnknownWithBlack(const AVFrame& picture, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format,
                          std::uint8_t* out);

}  // namespace vel

#endif
