#include "policys/Encoder/FFmpegEncoder.h"

#include <utility>

extern "C" {
#include <libavutil/opt.h>
}

#include "base/VelLog.h"

namespace vel {
namespace {

constexpr char kFallbackName[] = "libx264";

// The receiver's buffer that the rate control keeps from running dry, in milliseconds of the bit rate. A key frame
// takes up to 0.6 of it: at 25 pictures per second this keeps it below 12 times the average, where a second does not.
constexpr std::int64_t kRateBufferMs = 700;

// How full libx264 takes that buffer to be at the start. With its own 0.9, pictures that are hard to encode use it up in
// the first group, and the second key frame has nothing left: 14 dB for a fifth of a second where the rest has 23 (the
// synthetic camera at 1280x720, every second picture; 20 dB with this).
constexpr double kBufferAtStart = 0.5;

// How freely libx264 moves bits between pictures, 0 to 1. Its 0.6 falls short of the rate with this buffer.
constexpr float kRateCompression = 0.3F;

// With key frames closer than this libopenh264's own control misses the rate: 0.71 to 1.50 of it, with the content
// (measured with a key frame every 5 pictures, 15 in a second; every 25 of 25 it holds).
constexpr double kShortGopSeconds = 0.5;

// FFmpeg's level is for the whole process; the offset lets this context's messages pass it.
void LetDiagnosisThrough(AVCodecContext& context) {
  context.log_level_offset = AV_LOG_INFO - AV_LOG_DEBUG;
}

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
  mParam = param;
  const double seconds = param.gopSize * av_q2d(param.timeBase);
  if (mEncoderName == mSoftwareEncoderName && seconds < kShortGopSeconds) {
    const double bitsPerPicture = static_cast<double>(param.bitRate) * av_q2d(param.timeBase);
    mRate.emplace(static_cast<double>(param.bitRate) * seconds, bitsPerPicture / param.width / param.height);
  }
  mEncCtx = OpenContext();
  return mEncCtx == nullptr ? -1 : 0;
}

CodecContextPtr FFmpegEncoder::OpenContext() {
  CodecContextPtr context(avcodec_alloc_context3(mCodec));
  if (context == nullptr) {
    VEL_ERROR("mEncCtx can't be allocated");
    return nullptr;
  }
  context->bit_rate = mParam.bitRate;
  context->width = mParam.width;
  context->height = mParam.height;
  context->time_base = mParam.timeBase;
  context->framerate = mParam.frameRate;
  context->gop_size = mParam.gopSize;
  context->max_b_frames = mParam.maxBFrames;
  // Each has a slice. Threads for whole pictures would hold pictures back.
  context->thread_type = FF_THREAD_SLICE;
  context->thread_count = mParam.threads;
  context->pix_fmt = mParam.pixelFormat;
  if (!mUseFfmpegHwEncoder) {
    context->sw_pix_fmt = mParam.pixelFormat;
  }
  if (mDebug) {
    LetDiagnosisThrough(*context);
  }
  if (mEncCtx == nullptr) {
    SetPrivateOptions(*context);
  } else {
    av_opt_copy(context->priv_data, mEncCtx->priv_data);
  }
  HoldBitRate(*context);
  const int result = avcodec_open2(context.get(), mCodec, nullptr);
  if (result < 0) {
    VEL_ERROR("Could not open codec:%d", result);
    return nullptr;
  }
  return context;
}

void FFmpegEncoder::SetPrivateOptions(AVCodecContext& context) const {
  if (mParam.codecId != AV_CODEC_ID_H264) {
    return;
  }
  // Only libx264 has all of them.
  if (av_opt_set(context.priv_data, "preset", "ultrafast", 0) < 0) {
    VEL_ERROR("Failed to av_opt_set preset.");
  }
  if (av_opt_set(context.priv_data, "profile", "main", 0) < 0) {
    VEL_ERROR("Failed to av_opt_set. profile");
  }
  if (av_opt_set(context.priv_data, "tune", "zerolatency", 0) < 0) {
    VEL_ERROR("Failed to av_opt_set. tune");
  }
}

void FFmpegEncoder::HoldBitRate(AVCodecContext& context) const {
  context.rc_max_rate = mParam.bitRate;
  context.rc_buffer_size = static_cast<int>(mParam.bitRate * kRateBufferMs / 1000);
  if (mEncoderName != mSoftwareEncoderName) {
    context.rc_initial_buffer_occupancy = static_cast<int>(context.rc_buffer_size * kBufferAtStart);
    context.qcompress = kRateCompression;
    return;
  }
  context.slices = mParam.threads;
  // It warns, at every opening, that it holds no rate without skipping pictures.
  context.log_level_offset += AV_LOG_INFO - AV_LOG_WARNING;
  // It must not skip pictures: each one is answered.
  av_opt_set_int(context.priv_data, "allow_skip_frames", 0, 0);
  if (mRate) {
    av_opt_set(context.priv_data, "rc_mode", "quality", 0);
    context.qmin = context.qmax = mRate->Qp();
  } else {
    // Its default aims at a quality and lets the rate go.
    av_opt_set(context.priv_data, "rc_mode", "bitrate", 0);
  }
}

void FFmpegEncoder::BeginGop() {
  const int qpBefore = mRate->Qp();
  mRate->Ended(std::exchange(mGopBytes, 0));
  mGopPictures = 0;
  // FFmpeg passes a new quantiser on only at opening. A key frame is due anyway.
  if (mRate->Qp() != qpBefore) {
    if (CodecContextPtr next = OpenContext(); next != nullptr) {
      mEncCtx = std::move(next);
    }
  }
}

int FFmpegEncoder::encode(const AVFrame* frame, AVPacket* packet) {
  if (mEncCtx == nullptr) {
    return AVERROR(EINVAL);
  }
  if (mRate && frame != nullptr && mGopPictures == mParam.gopSize) {
    BeginGop();
  }
  const int sent = avcodec_send_frame(mEncCtx.get(), frame);
  const int result = sent < 0 ? sent : avcodec_receive_packet(mEncCtx.get(), packet);
  if (result == 0) {
    ++mGopPictures;
    mGopBytes += static_cast<std::uint64_t>(packet->size);
  }
  return result;
}

void FFmpegEncoder::close() {
  mEncCtx.reset();
}

void FFmpegEncoder::enableDebug() {
  mDebug = true;
  if (mEncCtx != nullptr) {
    LetDiagnosisThrough(*mEncCtx);
  }
}

}  // namespace vel
