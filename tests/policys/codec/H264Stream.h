#ifndef VIRTUSB_TESTS_POLICYS_CODEC_H264_STREAM_H
#define VIRTUSB_TESTS_POLICYS_CODEC_H264_STREAM_H

#include <cstdint>
#include <span>
#include <vector>

namespace vel::test {

// What FFmpeg's parser, to which a receiver's is compared, says of a picture.
struct ParsedPicture {
  int type = 0;  // AVPictureType.
  bool key = false;
  int width = 0;
  int height = 0;
};

// The pictures of an Annex B stream, in its order.
std::vector<ParsedPicture> ParseH264(std::span<const std::uint8_t> stream);

// The types of an access unit's NAL units, in order (ITU-T H.264, table 7-1).
std::vector<int> NalTypes(std::span<const std::uint8_t> unit);

}  // namespace vel::test

#endif
