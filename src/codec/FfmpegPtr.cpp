#include "codec/FfmpegPtr.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace vel {

void FfmpegDeleter::operator()(AVCodecContext* context) const {
  avcodec_free_context(&context);
}
void FfmpegDeleter::operator()(AVCodecParameters* parameters) const {
  avcodec_parameters_free(&parameters);
}
void FfmpegDeleter::operator()(AVFrame* frame) const {
  av_frame_free(&frame);
}
void FfmpegDeleter::operator()(AVPacket* packet) const {
  av_packet_free(&packet);
}
void FfmpegDeleter::operator()(AVBufferPool* pool) const {
  av_buffer_pool_uninit(&pool);
}

}  // namespace vel
