#ifndef VEL_POLICYS_UVC_DECODER_H
#define VEL_POLICYS_UVC_DECODER_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <thread>

#include "base/LockOrder.h"
#include "base/ModuleExport.h"
#include "codec/CodecInput.h"
#include "codec/CodecTypes.h"
#include "codec/FfmpegLog.h"
#include "codec/FfmpegPtr.h"
#include "codec/FrameBlocks.h"
#include "codec/UVCDecoderHandler.h"

namespace vel {

class DecodedPicture;

// Decodes a camera's MJPEG or H.264 frames. Pictures have the size that they have in the stream, whatever was
// negotiated; above 8192 pixels in a direction they are refused. A frame that cannot be decoded costs an Error line and
// no other frame; of a damaged MJPEG picture what decodes is passed on, with an Error line of FFmpeg's. A pixel format
// that the decoder does not convert gives a black picture and an Error line.
class VEL_MODULE_EXPORT UVCDecoder {
 public:
  UVCDecoder();
  UVCDecoder(const UVCDecoder&) = delete;
  UVCDecoder& operator=(const UVCDecoder&) = delete;
  ~UVCDecoder();

  // Opens the codec and starts the worker. Size in pixels, as negotiated. The handler outlives the decoder's release.
  // Returns 0; -1 when initialised already or without such a codec, -2 or -3 when there is no memory, -4 when the codec
  // does not open. Any thread, but not along with Release.
  int Init(_UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format, int width, int height,
           UVCDecoderHandler* handler);

  // Decodes a frame on the calling thread; not along with DecodeAsync. `out` has room for the negotiated width * height
  // * 2 bytes; a picture that needs more is refused. Returns 1 when a picture was written to `out`, with its size, or
  // -1.
  int Decode(const std::uint8_t* in, std::uint32_t inSize, std::uint8_t* out, std::uint32_t* outSize);

  // Feeds the codec; the worker passes the picture on. Takes `in`, a malloc block, and frees it, but for a call that it
  // refuses as a whole: not initialised or released, null, or size 0. Returns 0, or -1 with an Error line. Any thread;
  // blocks for the time that decoding a frame takes.
  int DecodeAsync(std::uint8_t* in, std::uint32_t inSize, std::uint32_t index);
  // The same; `in` is empty afterwards unless the call was refused as a whole.
  int DecodeAsync(HeapBlock& in, std::uint32_t inSize, std::uint32_t index);

  // Ends the worker after the picture that it is at and closes the codec. Returns 0, also without Init. Any thread but
  // the worker's.
  int Release();

  // For clients: converts the picture that Decode decoded last into `out` and sets the size; neither when it cannot be
  // converted, or needs more than the negotiated room, which `out` has as for Decode. Returns 0 or -1.
  int GetOutputData(std::uint8_t* out, std::uint32_t* outSize);

  // For clients: planar 4:2:0 to YUYV, each chroma row twice. `out` has width * height * 2 bytes. Any thread.
  static void YUV420PToYUV422(const std::uint8_t* const planes[3], const int lineSizes[3], std::uint8_t* out, int width,
                              int height);

 private:
  int OpenCodec(_UVC_DECODER_TYPE type) VEL_REQUIRES(mCodecMutex);
  int Send(const std::uint8_t* in, std::uint32_t inSize, std::int64_t pts) VEL_REQUIRES(mCodecMutex);
  // Whether it fits the negotiated size.
  bool Fits(const DecodedPicture& picture) const VEL_REQUIRES(mCodecMutex);
  // False, with an Error line, when it does not fit or cannot be converted.
  bool Convert(const DecodedPicture& picture, std::uint8_t* out, std::uint32_t* outSize) const
      VEL_REQUIRES(mCodecMutex);
  void DecodeThread(_UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format);
  // Waits for the next picture or failure; false at the end.
  bool AwaitPicture(AVFrame& picture, int& result);
  void PassOn(const AVFrame& frame, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format);

  Mutex mCodecMutex VEL_LOCK_LEVEL(Work);
  CondVar mCodecChanged;  // A frame was sent, or the worker is to end.
  CodecContextPtr mContext VEL_GUARDED_BY(mCodecMutex);
  FramePtr mFrame VEL_GUARDED_BY(mCodecMutex);  // Of Decode.
  CodecInput mInput VEL_GUARDED_BY(mCodecMutex);
  bool mSent VEL_GUARDED_BY(mCodecMutex) = false;  // The codec may have something for the worker.
  bool mRunning VEL_GUARDED_BY(mCodecMutex) = false;
  int mWidth VEL_GUARDED_BY(mCodecMutex) = 640;
  int mHeight VEL_GUARDED_BY(mCodecMutex) = 480;
  _UVC_DECODER_TYPE mType VEL_GUARDED_BY(mCodecMutex) = UVC_DECODER_TYPE_H264;
  _UVC_DECODER_OUTPUT_FORMAT mFormat VEL_GUARDED_BY(mCodecMutex) = UVC_DECODER_OUTPUT_YUYV;

  std::thread mThread;
  std::atomic<std::int64_t> mStartTime{0};  // WallClockMs when the last frame was sent.
  UVCDecoderHandler* mHandler = nullptr;
  std::optional<FrameBlocks::User> mBlocks;
  std::optional<FfmpegLogRoute> mLogRoute;
};

}  // namespace vel

#endif
