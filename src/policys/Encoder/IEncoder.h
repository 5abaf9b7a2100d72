#ifndef VEL_POLICYS_ENCODER_I_ENCODER_H
#define VEL_POLICYS_ENCODER_I_ENCODER_H

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
}

struct AVFrame;
struct AVPacket;

namespace vel {

struct EncoderParam {
  std::int32_t width = 0;  // Pixels.
  std::int32_t height = 0;
  std::int64_t bitRate = 0;  // Bit/s.
  std::int32_t gopSize = 0;  // Pictures from one key frame to the next.
  AVRational timeBase{};
  AVRational frameRate{};
  AVPixelFormat pixelFormat = AV_PIX_FMT_YUV420P;
  std::int32_t maxBFrames = 0;
  AVCodecID codecId = AV_CODEC_ID_H264;
  std::int32_t threads = 1;  // At work on a picture at a time, each on a slice of its own.
};

// One video encoder. One thread at a time.
class IEncoder {
 public:
  virtual ~IEncoder() = default;

  // Returns 0 or -1. Once in the object's life.
  virtual int open(const EncoderParam& param) = 0;

  // Encodes a picture (null: there are no more) into `packet`, which the caller owns and unreferences. The picture may
  // be written to again when this returns, if it is still the caller's alone (av_frame_make_writable). Returns 0 when a
  // packet was produced, otherwise a negative FFmpeg code.
  virtual int encode(const AVFrame* frame, AVPacket* packet) = 0;

  virtual void close() = 0;

  // Lets the encoder's own diagnosis through to the log at Debug.
  virtual void enableDebug() = 0;

 protected:
  IEncoder() = default;
  IEncoder(const IEncoder&) = default;
  IEncoder& operator=(const IEncoder&) = default;
};

}  // namespace vel

#endif
