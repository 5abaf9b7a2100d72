#ifndef VEL_CODEC_CODEC_INPUT_H
#define VEL_CODEC_CODEC_INPUT_H

#include <cstddef>
#include <cstdint>

#include "codec/FfmpegPtr.h"

struct AVBufferRef;

namespace vel {

// Brings a frame's bytes into the form that FFmpeg's decoders want: a buffer of FFmpeg's own with zeroed padding behind
// the bytes, which readers of bits run into. Buffers are recycled. One thread at a time.
class CodecInput {
 public:
  CodecInput();

  // A packet with a copy of the bytes, valid until the next call; null when there is no memory.
  AVPacket* Fill(const std::uint8_t* data, std::uint32_t size, std::int64_t pts);

 private:
  AVBufferRef* TakeBuffer(std::size_t bytes);

  const PacketPtr mPacket;
  BufferPoolPtr mPool;
  std::size_t mPoolBytes = 0;  // Of each of the pool's buffers.
};

}  // namespace vel

#endif
