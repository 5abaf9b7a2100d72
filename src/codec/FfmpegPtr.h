// Owning pointers for FFmpeg's objects, without its headers: whoever includes those of the codecs needs none of them.
#ifndef VEL_CODEC_FFMPEG_PTR_H
#define VEL_CODEC_FFMPEG_PTR_H

#include <memory>

struct AVBufferPool;
struct AVCodecContext;
struct AVCodecParameters;
struct AVFrame;
struct AVPacket;

namespace vel {

struct FfmpegDeleter {
  void operator()(AVCodecContext* context) const;
  void operator()(AVCodecParameters* parameters) const;
  void operator()(AVFrame* frame) const;
  void operator()(AVPacket* packet) const;
  void operator()(AVBufferPool* pool) const;
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, FfmpegDeleter>;
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, FfmpegDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FfmpegDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, FfmpegDeleter>;
// Buffers that are still in use keep what they need of a freed pool.
using BufferPoolPtr = std::unique_ptr<AVBufferPool, FfmpegDeleter>;

}  // namespace vel

#endif
