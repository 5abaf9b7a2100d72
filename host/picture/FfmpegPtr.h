// FFmpeg's objects, owned. Named apart from the module's, which a program may hold as well.
#ifndef VIRTUSB_HOST_PICTURE_FFMPEG_PTR_H
#define VIRTUSB_HOST_PICTURE_FFMPEG_PTR_H

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

namespace vel {

struct HostFfmpegDeleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, HostFfmpegDeleter>;
using FramePtr = std::unique_ptr<AVFrame, HostFfmpegDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, HostFfmpegDeleter>;
using ScalerPtr = std::unique_ptr<SwsContext, HostFfmpegDeleter>;

}  // namespace vel

#endif
