#include "picture/YuyvDecoder.h"

#include <algorithm>
#include <stdexcept>

#include "picture/FfmpegPtr.h"

extern "C" {
#include <libavutil/log.h>
}

namespace vel {
namespace {

constexpr int kMaxSide = 8192;
constexpr std::size_t kMaxBytes = 64U << 20U;

}  // namespace

struct YuyvDecoder::Codec {
  CodecContextPtr context;
  FramePtr frame{av_frame_alloc()};
  PacketPtr packet{av_packet_alloc()};
  ScalerPtr scaler;
  std::vector<std::uint8_t> input;
};

YuyvDecoder::YuyvDecoder(PictureFormat format, int width, int height)
    : mWidth(width), mHeight(height), mCodec(std::make_unique<Codec>()) {
  av_log_set_level(AV_LOG_QUIET);  // A picture that is broken shows in what becomes of it.
  const AVCodec* codec = avcodec_find_decoder(format == PictureFormat::kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_MJPEG);
  if (codec == nullptr) {
    throw std::runtime_error("this machine's FFmpeg has no decoder for the camera's pictures");
  }
  mCodec->context.reset(avcodec_alloc_context3(codec));
  if (mCodec->context == nullptr || mCodec->frame == nullptr || mCodec->packet == nullptr) {
    throw std::runtime_error("no memory");
  }
  mCodec->context->flags |= AV_CODEC_FLAG_LOW_DELAY;
  mCodec->context->thread_count = 1;  // Frame threads would hold pictures back.
  mCodec->context->max_pixels = std::int64_t{kMaxSide} * kMaxSide;
  if (avcodec_open2(mCodec->context.get(), codec, nullptr) < 0) {
    throw std::runtime_error("the decoder of the camera's pictures does not start");
  }
}

YuyvDecoder::~YuyvDecoder() = default;

bool YuyvDecoder::Take(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > kMaxBytes) {
    return false;
  }
  mCodec->input.resize(std::max(mCodec->input.size(), bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  std::ranges::copy(bytes, mCodec->input.begin());
  std::fill_n(mCodec->input.begin() + static_cast<std::ptrdiff_t>(bytes.size()), AV_INPUT_BUFFER_PADDING_SIZE, 0);
  mCodec->packet->data = mCodec->input.data();
  mCodec->packet->size = static_cast<int>(bytes.size());
  return avcodec_send_packet(mCodec->context.get(), mCodec->packet.get()) >= 0 &&
         avcodec_receive_frame(mCodec->context.get(), mCodec->frame.get()) >= 0;
}

bool YuyvDecoder::Write(std::vector<std::uint8_t>& yuyv) {
  const AVFrame& frame = *mCodec->frame;
  if (frame.data[0] == nullptr || frame.width > kMaxSide || frame.height > kMaxSide) {
    return false;
  }
  mCodec->scaler.reset(sws_getCachedContext(mCodec->scaler.release(), frame.width, frame.height,
                                            static_cast<AVPixelFormat>(frame.format), mWidth, mHeight,
                                            AV_PIX_FMT_YUYV422, SWS_POINT, nullptr, nullptr, nullptr));
  if (mCodec->scaler == nullptr) {
    return false;
  }
  const int stride = 2 * mWidth;
  yuyv.resize(static_cast<std::size_t>(stride) * static_cast<std::size_t>(mHeight));
  std::uint8_t* const target[] = {yuyv.data()};
  return sws_scale(mCodec->scaler.get(), frame.data, frame.linesize, 0, frame.height, target, &stride) == mHeight;
}

}  // namespace vel
