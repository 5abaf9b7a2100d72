#ifndef VIRTUSB_TOOLS_TRANSCODE_FRAME_SOURCE_H
#define VIRTUSB_TOOLS_TRANSCODE_FRAME_SOURCE_H

#include <cstdint>
#include <memory>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "codec/FfmpegPtr.h"
#include "codec/UVCFrame.h"

namespace vel {

// The frames of a file as a camera would deliver them: MJPEG pictures, or raw YUYV ones. One thread
// at a time; throws std::runtime_error with one line that says what is wrong with the file.
class FrameSource {
 public:
  // `size` ("WxH") says that the file is raw YUYV without any header; empty: FFmpeg finds out what
  // it is.
  FrameSource(const std::string& path, const std::string& size);

  // The next frame with its number, from 0; null at the end.
  UVCFramePtr Next();

  _UVC_FRAME_TYPE Type() const { return mType; }
  int Width() const;  // Pixels.
  int Height() const;
  double Rate() const;  // Frames per second; 25 where the file does not say.

 private:
  struct InputCloser {
    void operator()(AVFormatContext* input) const { avformat_close_input(&input); }
  };

  std::string mPath;
  std::unique_ptr<AVFormatContext, InputCloser> mInput;
  const AVStream* mStream = nullptr;
  PacketPtr mPacket{av_packet_alloc()};
  _UVC_FRAME_TYPE mType = UVC_FRAME_TYPE_MJPEG;
  std::uint32_t mNext = 0;
};

}  // namespace vel

#endif
