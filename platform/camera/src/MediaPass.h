#ifndef OSKELO_CAMERA_MEDIA_PASS_H
#define OSKELO_CAMERA_MEDIA_PASS_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

namespace oskelo {

// What ends a reading that would take too long.
struct ReadLimit {
  std::function<bool()> isEnded;
  std::chrono::steady_clock::time_point deadline;
};

// One reading of a file or an address, from its first picture to its last. Pictures are JPEG as
// they are in an MJPEG source, and YUYV otherwise. Used by one thread.
class MediaPass {
 public:
  // Null when the source cannot be read; `error` then says why. The limit is looked at as long as
  // the pass lives.
  static std::unique_ptr<MediaPass> Open(const std::string& name, const ReadLimit& limit, std::string& error);
  MediaPass(const MediaPass&) = delete;
  MediaPass& operator=(const MediaPass&) = delete;

  bool IsMjpeg() const { return mDecoder == nullptr; }

  // Goes on to the next picture; what cannot be decoded is left out. False at the end.
  bool Next();

  // Of the present picture: its size, how long after the one before it is due, and its bytes,
  // scaled to a size with even width unless they are JPEG; empty when that fails. Valid until Next.
  int Width() const;
  int Height() const;
  std::chrono::nanoseconds Interval() const { return mInterval; }
  std::span<std::uint8_t> Picture(int width, int height);

 private:
  struct FreeInput {
    void operator()(AVFormatContext* input) const { avformat_close_input(&input); }
  };
  struct FreeDecoder {
    void operator()(AVCodecContext* decoder) const { avcodec_free_context(&decoder); }
  };
  struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  };
  struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  };
  struct FreeScaler {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
  };

  MediaPass() : mPacket(av_packet_alloc()), mFrame(av_frame_alloc()) {}
  std::string FindVideo();
  bool ReadPacket();
  bool DecodeFrame();
  void TakeTimestamp(std::int64_t timestamp);
  SwsContext* ScalerTo(int width, int height);

  std::unique_ptr<AVFormatContext, FreeInput> mInput;
  std::unique_ptr<AVCodecContext, FreeDecoder> mDecoder;  // Null for MJPEG.
  std::unique_ptr<AVPacket, FreePacket> mPacket;
  std::unique_ptr<AVFrame, FreeFrame> mFrame;
  std::unique_ptr<SwsContext, FreeScaler> mScaler;
  int mScaledFormat = AV_PIX_FMT_NONE;  // What the scaler was made for.
  int mScaledWidth = 0;
  int mScaledHeight = 0;
  std::vector<std::uint8_t> mYuyv;
  AVStream* mStream = nullptr;  // The input's.
  bool mDrained = false;        // The decoder was told that no packet follows.
  std::int64_t mTimestamp = AV_NOPTS_VALUE;
  std::chrono::nanoseconds mNominal{};
  std::chrono::nanoseconds mInterval{};
};

}  // namespace oskelo

#endif
