#ifndef VEL_POLICYS_ENCODER_FFMPEG_ENCODER_H
#define VEL_POLICYS_ENCODER_FFMPEG_ENCODER_H

#include <cstdint>
#include <optional>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "codec/FfmpegPtr.h"
#include "policys/Encoder/GopRate.h"
#include "policys/Encoder/IEncoder.h"

namespace vel {

// H.264 through FFmpeg: "libopenh264", or "libx264" where FFmpeg was built without it. One access unit out for each
// picture in, in the same order, with the parameter sets in front of every key frame; the bit rate follows the setting.
class FFmpegEncoder : public IEncoder {
 public:
  // There is no hardware encoder: when one is asked for, open says so and takes the software one.
  explicit FFmpegEncoder(bool useFfmpegHwEncoder);

  int open(const EncoderParam& param) override;
  int encode(const AVFrame* frame, AVPacket* packet) override;
  void close() override;
  void enableDebug() override;

  // The encoder in use; empty until open.
  const std::string& Name() const { return mEncoderName; }

 private:
  const AVCodec* FindCodec();
  CodecContextPtr OpenContext();
  void SetPrivateOptions(AVCodecContext& context) const;
  void HoldBitRate(AVCodecContext& context) const;
  // In front of each group of pictures but the first.
  void BeginGop();

  EncoderParam mParam;
  CodecContextPtr mEncCtx;
  std::optional<GopRate> mRate;  // Where the encoder's own rate control does not do.
  int mGopPictures = 0;
  std::uint64_t mGopBytes = 0;
  const AVCodec* mCodec = nullptr;
  const bool mUseFfmpegHwEncoder;
  bool mDebug = false;
  std::string mEncoderName;
  const std::string mSoftwareEncoderName = "libopenh264";
};

}  // namespace vel

#endif
