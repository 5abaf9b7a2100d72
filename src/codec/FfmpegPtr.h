// Owning pointers for FFmpeg's objects.
#ifndef VEL_CODEC_FFMPEG_PTR_H
#define VEL_CODEC_FFMPEG_PTR_H

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace vel {

struct FfmpegDeleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVBufferPool* pool) const { av_buffer_pool_uninit(&pool); }
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, FfmpegDeleter>;
using CodecParametersPtr = std::unique_ptr<AVCodecParameters, FfmpegDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FfmpegDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, FfmpegDeleter>;
// Buffers that are still in use keep what they need of a freed pool.
using BufferPoolPtr = std::unique_ptr<AVBufferPool, FfmpegDeleter>;

}  // namespace vel

#endif
