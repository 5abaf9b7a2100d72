#include "policys/Encoder/FFmpegEncoder.h"

#include <utility>

extern "C" {
#include <libavutil/opt.h>
}

#include "VelLog.h"

namespace vel {
namespace {

constexpr char kFallbackName[] = "libx264";

// The receiver's buffer that the rate control keeps from running dry, in milliseconds of the bit
// rate. A key frame takes up to 0.6 of it: at 25 pictures per second this keeps it below 12 times
// the average, where a second does not.
constexpr std::int64_t kRateBufferMs = 700;

// How freely libx264 moves bits between pictures, 0 to 1. Its 0.6 falls short of the rate with this
// buffer.
constexpr float kRateCompression = 0.3F;

}  // namespace

FFmpegEncoder::FFmpegEncoder(bool useFfmpegHwEncoder) : mUseFfmpegHwEncoder(useFfmpegHwEncoder) {
  VEL_DEBUG("useFfmpegHwEncoder: %d", static_cast<int>(useFfmpegHwEncoder));
}

const AVCodec* FFmpegEncoder::FindCodec() {
  if (mUseFfmpegHwEncoder) {
    VEL_DEBUG("not support hw encoder, force to openh264.");
  }
  mEncoderName = mSoftwareEncoderName;
  const AVCodec* codec = avcodec_find_encoder_by_name(mEncoderName.c_str());
  if (codec == nullptr) {
    VEL_WARN("FFmpeg has no %s, using %s", mEncoderName.c_str(), kFallbackName);
    mEncoderName = kFallbackName;
    codec = avcodec_find_encoder_by_name(kFallbackName);
  }
  return codec;
}

int FFmpegEncoder::open(const EncoderParam& param) {
  mCodec = FindCodec();
  if (mCodec == nullptr) {
    VEL_ERROR("FFmpeg has no H.264 encoder");
    return -1;
  }
  if (param.width % 2 != 0 || param.height % 2 != 0) {
    // No encoder takes halves of a chroma sample, and finding that out in libx264 leaks.
    VEL_ERROR("Could not open codec:%d", AVERROR(EINVAL));
    return -1;
  }
  mEncCtx.reset(avcodec_alloc_context3(mCodec));
  if (mEncCtx == nullptr) {
    VEL_ERROR("mEncCtx can't be allocated");
    return -1;
  }
  mEncCtx->bit_rate = param.bitRate;
  mEncCtx->width = param.width;
  mEncCtx->height = param.height;
  mEncCtx->time_base = param.timeBase;
  mEncCtx->framerate = param.frameRate;
  mEncCtx->gop_size = param.gopSize;
  mEncCtx->max_b_frames = param.maxBFrames;
  mEncCtx->pix_fmt = param.pixelFormat;
  if (!mUseFfmpegHwEncoder) {
    mEncCtx->sw_pix_fmt = param.pixelFormat;
  }
  if (mDebug) {
    enableDebug();
  }
  SetPrivateOptions(param.codecId);
  HoldBitRate(param);
  const int result = avcodec_open2(mEncCtx.get(), mCodec, nullptr);
  if (result < 0) {
    VEL_ERROR("Could not open codec:%d", result);
    mEncCtx.reset();
    return -1;
  }
  return 0;
}

void FFmpegEncoder::SetPrivateOptions(AVCodecID codecId) {
  if (codecId != AV_CODEC_ID_H264) {
    return;
  }
  // Only libx264 has all of them.
  if (av_opt_set(mEncCtx->priv_data, "preset", "ultrafast", 0) < 0) {
    VEL_ERROR("Failed to av_opt_set preset.");
  }
  if (av_opt_set(mEncCtx->priv_data, "profile", "main", 0) < 0) {
    VEL_ERROR("Failed to av_opt_set. profile");
  }
  if (av_opt_set(mEncCtx->priv_data, "tune", "zerolatency", 0) < 0) {
    VEL_ERROR("Failed to av_opt_set. tune");
  }
}

void FFmpegEncoder::HoldBitRate(const EncoderParam& param) {
  mEncCtx->rc_max_rate = param.bitRate;
  mEncCtx->rc_buffer_size = static_cast<int>(param.bitRate * kRateBufferMs / 1000);
  if (mEncoderName == mSoftwareEncoderName) {
    // Its default aims at a quality and lets the rate go. It must not skip pictures either: each
    // one is answered.
    av_opt_set(mEncCtx->priv_data, "rc_mode", "bitrate", 0);
    av_opt_set_int(mEncCtx->priv_data, "allow_skip_frames", 0, 0);
  } else {
    mEncCtx->qcompress = kRateCompression;
  }
}

int FFmpegEncoder::encode(const AVFrame* frame, AVPacket* packet) {
  if (mEncCtx == nullptr) {
    return AVERROR(EINVAL);
  }
  const int sent = avcodec_send_frame(mEncCtx.get(), frame);
  return sent < 0 ? sent : avcodec_receive_packet(mEncCtx.get(), packet);
}

void FFmpegEncoder::close() {
  mEncCtx.reset();
}

void FFmpegEncoder::enableDebug() {
  mDebug = true;
  if (mEncCtx != nullptr) {
    // FFmpeg's level is for the whole process; the offset lets this object's messages pass it.
    mEncCtx->log_level_offset = AV_LOG_INFO - AV_LOG_DEBUG;
  }
}

}  // namespace vel
