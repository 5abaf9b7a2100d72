// In front of the encoder through FFmpeg: what no remote side has a say in. Opening it, for each input that starts a
// transcoded stream, took the fuzzer most of its time.

#include <cstring>

#include "policys/Encoder/FFmpegEncoder.h"

namespace vel {

FFmpegEncoder::FFmpegEncoder(bool useFfmpegHwEncoder) : mUseFfmpegHwEncoder(useFfmpegHwEncoder) {}

int FFmpegEncoder::open(const EncoderParam& /*param*/) {
  return 0;
}

int FFmpegEncoder::encode(const AVFrame* frame, AVPacket* packet) {
  constexpr int kBytes = 64;
  if (frame == nullptr || av_new_packet(packet, kBytes) != 0) {
    return AVERROR_EOF;
  }
  std::memset(packet->data, 0, kBytes);
  return 0;
}

void FFmpegEncoder::close() {}

void FFmpegEncoder::enableDebug() {}

}  // namespace vel
