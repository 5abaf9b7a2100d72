#include "picture/Png.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>

#include "picture/FfmpegPtr.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace vel {
namespace {

void Require(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(what);
  }
}

void Require(int result, const char* what) {
  if (result < 0) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, text, sizeof text);
    throw std::runtime_error(std::string(what) + " (" + text + ")");
  }
}

FramePtr NewFrame(AVPixelFormat format, int width, int height) {
  FramePtr frame(av_frame_alloc());
  Require(frame != nullptr, "no memory");
  frame->format = format;
  frame->width = width;
  frame->height = height;
  Require(av_frame_get_buffer(frame.get(), 0), "no memory");
  return frame;
}

CodecContextPtr NewContext(const AVCodec* codec) {
  Require(codec != nullptr, "this machine's FFmpeg has no such codec");
  CodecContextPtr context(avcodec_alloc_context3(codec));
  Require(context != nullptr, "no memory");
  return context;
}

PacketPtr CopyToPacket(std::span<const std::uint8_t> bytes) {
  PacketPtr packet(av_packet_alloc());
  Require(packet != nullptr, "no memory");
  Require(av_new_packet(packet.get(), static_cast<int>(bytes.size())), "no memory");
  std::copy(bytes.begin(), bytes.end(), packet->data);
  return packet;
}

FramePtr Decode(AVCodecID id, std::span<const std::uint8_t> bytes) {
  const AVCodec* codec = avcodec_find_decoder(id);
  const CodecContextPtr decoder = NewContext(codec);
  Require(avcodec_open2(decoder.get(), codec, nullptr), "the decoder does not start");
  FramePtr frame(av_frame_alloc());
  Require(frame != nullptr, "no memory");
  Require(avcodec_send_packet(decoder.get(), CopyToPacket(bytes).get()), "it cannot be decoded");
  avcodec_send_packet(decoder.get(), nullptr);  // No more: have it out at once.
  Require(avcodec_receive_frame(decoder.get(), frame.get()), "it cannot be decoded");
  return frame;
}

FramePtr FromYuyv(std::span<const std::uint8_t> bytes, std::uint16_t width, std::uint16_t height) {
  FramePtr frame = NewFrame(AV_PIX_FMT_YUYV422, width, height);
  const std::size_t row = std::size_t{2} * width;
  Require(bytes.size() >= row * height, "it is not whole");
  for (std::size_t y = 0; y < height; ++y) {
    std::copy_n(bytes.data() + y * row, row, frame->data[0] + y * static_cast<std::size_t>(frame->linesize[0]));
  }
  return frame;
}

FramePtr ToRgb(const AVFrame& picture) {
  FramePtr rgb = NewFrame(AV_PIX_FMT_RGB24, picture.width, picture.height);
  const ScalerPtr scaler(sws_getContext(picture.width, picture.height, static_cast<AVPixelFormat>(picture.format),
                                        picture.width, picture.height, AV_PIX_FMT_RGB24, SWS_BICUBIC, nullptr, nullptr,
                                        nullptr));
  Require(scaler != nullptr, "its pixel format cannot be converted");
  Require(sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, rgb->data, rgb->linesize),
          "its pixel format cannot be converted");
  return rgb;
}

std::vector<std::uint8_t> EncodePng(const AVFrame& rgb) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
  const CodecContextPtr encoder = NewContext(codec);
  encoder->width = rgb.width;
  encoder->height = rgb.height;
  encoder->pix_fmt = AV_PIX_FMT_RGB24;
  encoder->time_base = {1, 1};
  encoder->compression_level = 9;
  PacketPtr packet(av_packet_alloc());
  Require(packet != nullptr, "no memory");
  av_opt_set(encoder->priv_data, "pred", "mixed", 0);
  Require(avcodec_open2(encoder.get(), codec, nullptr), "the PNG encoder does not start");
  Require(avcodec_send_frame(encoder.get(), &rgb), "it cannot be encoded");
  avcodec_send_frame(encoder.get(), nullptr);
  Require(avcodec_receive_packet(encoder.get(), packet.get()), "it cannot be encoded");
  return {packet->data, packet->data + packet->size};
}

}  // namespace

std::vector<std::uint8_t> MakePng(PictureFormat format, std::span<const std::uint8_t> picture, std::uint16_t width,
                                  std::uint16_t height) {
  av_log_set_level(AV_LOG_QUIET);  // What is wrong is thrown.
  switch (format) {
    case PictureFormat::kYuyv:
      return EncodePng(*ToRgb(*FromYuyv(picture, width, height)));
    case PictureFormat::kMjpeg:
      return EncodePng(*ToRgb(*Decode(AV_CODEC_ID_MJPEG, picture)));
    case PictureFormat::kH264:
      return EncodePng(*ToRgb(*Decode(AV_CODEC_ID_H264, picture)));
    case PictureFormat::kOther:
      break;
  }
  throw std::runtime_error("the camera's pixel format is not known");
}

}  // namespace vel
