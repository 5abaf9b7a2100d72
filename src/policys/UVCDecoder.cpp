#include "policys/UVCDecoder.h"

#include <exception>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "base/Clock.h"
#include "base/VelLog.h"
#include "codec/DecodedPicture.h"
#include "codec/UVCFrame.h"
#include "pixel/PixelConvert.h"

namespace vel {
namespace {

AVCodecID CodecOf(_UVC_DECODER_TYPE type) {
  switch (type) {
    case UVC_DECODER_TYPE_MJPEG:
      return AV_CODEC_ID_MJPEG;
    case UVC_DECODER_TYPE_H264:
      return AV_CODEC_ID_H264;
  }
  VEL_ERROR("unknow format");
  return AV_CODEC_ID_NONE;
}

// Called by the codec before it allocates a picture's memory. FFmpeg's own pool is of memory set to 0: what a damaged
// picture leaves undecoded is that, or an earlier picture of the same camera.
extern "C" int GetPictureBuffer(AVCodecContext* context, AVFrame* picture, int flags) {
  if (!IsPictureSizeUsable(picture->width, picture->height)) {
    VEL_ERROR("a picture of %dx%d is refused", picture->width, picture->height);
    return AVERROR(EINVAL);
  }
  return avcodec_default_get_buffer2(context, picture, flags);
}

}  // namespace

UVCDecoder::UVCDecoder() = default;

UVCDecoder::~UVCDecoder() {
  Release();
}

int UVCDecoder::Init(_UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format, int width, int height,
                     UVCDecoderHandler* handler) {
  VEL_DEBUG("Decoder init, w[%d], h[%d]", width, height);
  const MutexLock lock(mCodecMutex);
  if (mContext != nullptr) {
    VEL_ERROR("Decoder is already inited");
    return -1;
  }
  mFormat = format;
  mType = type;
  mWidth = width;
  mHeight = height;
  mLogRoute.emplace();
  const int result = OpenCodec(type);
  if (result != 0) {
    mContext.reset();
    mLogRoute.reset();
    return result;
  }
  mBlocks.emplace();
  mHandler = handler;
  mRunning = true;
  mSent = false;
  try {
    mThread = std::thread([this, type, format] { DecodeThread(type, format); });
  } catch (const std::exception&) {
    // Deliberately no failure: Decode does without the worker.
    VEL_ERROR("init decoder failed\n");
  }
  VEL_DEBUG("init decoder success\n");
  return 0;
}

int UVCDecoder::OpenCodec(_UVC_DECODER_TYPE type) {
  const AVCodec* codec = avcodec_find_decoder(CodecOf(type));
  if (codec == nullptr) {
    VEL_ERROR("can not find H264 codec\n");
    return -1;
  }
  mContext.reset(avcodec_alloc_context3(codec));
  mFrame.reset(av_frame_alloc());
  if (mContext == nullptr || mFrame == nullptr) {
    VEL_ERROR("Could not alloc video context!\n");
    return -2;
  }
  const CodecParametersPtr parameters(avcodec_parameters_alloc());
  if (parameters == nullptr || avcodec_parameters_from_context(parameters.get(), mContext.get()) < 0) {
    VEL_ERROR("Failed to copy avcodec parameters from codec context.");
    return -3;
  }
  mContext->get_buffer2 = &GetPictureBuffer;
  mContext->thread_type = FF_THREAD_SLICE;  // Threads for frames hold pictures back.
  if (type == UVC_DECODER_TYPE_H264) {
    mContext->flags |= AV_CODEC_FLAG_LOW_DELAY;
  }
  if (avcodec_open2(mContext.get(), codec, nullptr) < 0) {
    VEL_ERROR("Failed to open h264 decoder");
    return -4;
  }
  return 0;
}

int UVCDecoder::Send(const std::uint8_t* in, std::uint32_t inSize, std::int64_t pts) {
  const AVPacket* packet = mInput.Fill(in, inSize, pts);
  return packet == nullptr ? AVERROR(ENOMEM) : avcodec_send_packet(mContext.get(), packet);
}

int UVCDecoder::Decode(const std::uint8_t* in, std::uint32_t inSize, std::uint8_t* out, std::uint32_t* outSize) {
  const MutexLock lock(mCodecMutex);
  if (mContext == nullptr || mFrame == nullptr || in == nullptr || inSize == 0 || out == nullptr ||
      outSize == nullptr) {
    VEL_ERROR("inbuf: %p, inbufSize: %u, outYUVBuf: %p, outSize: %p, decoder ctx: %p, avframe: %p\n",
              static_cast<const void*>(in), inSize, static_cast<void*>(out), static_cast<void*>(outSize),
              static_cast<void*>(mContext.get()), static_cast<void*>(mFrame.get()));
    return -1;
  }
  av_frame_unref(mFrame.get());
  int result = Send(in, inSize, AV_NOPTS_VALUE);
  if (result != 0) {
    VEL_ERROR("avcodec_send_packet fail (%d)\n", result);
    return -1;
  }
  result = avcodec_receive_frame(mContext.get(), mFrame.get());
  if (result == AVERROR(EAGAIN)) {
    VEL_ERROR("decode fail EAGAIN (%d)\n", result);
    return -1;
  }
  if (result != 0) {
    VEL_ERROR("decode fail (%d)\n", result);
    return -1;
  }
  const DecodedPicture picture(*mFrame, mType, mFormat);
  if (Fits(picture)) {
    picture.FillUnknownWithBlack(out);
  }
  return Convert(picture, out, outSize) ? 1 : -1;
}

int UVCDecoder::GetOutputData(std::uint8_t* out, std::uint32_t* outSize) {
  const MutexLock lock(mCodecMutex);
  if (mFrame == nullptr || mFrame->data[0] == nullptr || out == nullptr || outSize == nullptr) {
    return -1;
  }
  return Convert(DecodedPicture(*mFrame, mType, mFormat), out, outSize) ? 0 : -1;
}

bool UVCDecoder::Fits(const DecodedPicture& picture) const {
  return static_cast<std::int64_t>(picture.BlockBytes()) <= static_cast<std::int64_t>(mWidth) * mHeight * 2;
}

bool UVCDecoder::Convert(const DecodedPicture& picture, std::uint8_t* out, std::uint32_t* outSize) const {
  if (!Fits(picture)) {
    VEL_ERROR("a picture of %dx%d does not fit %dx%d", picture.Width(), picture.Height(), mWidth, mHeight);
    return false;
  }
  picture.LogFormat();
  if (picture.Bytes() == 0) {
    return false;
  }
  picture.Convert(out);
  *outSize = picture.Bytes();
  return true;
}

int UVCDecoder::DecodeAsync(std::uint8_t* in, std::uint32_t inSize, std::uint32_t index) {
  HeapBlock block(in);
  const int result = DecodeAsync(block, inSize, index);
  static_cast<void>(block.release());  // Null when it was taken.
  return result;
}

int UVCDecoder::DecodeAsync(HeapBlock& in, std::uint32_t inSize, std::uint32_t index) {
  int result = 0;
  {
    const MutexLock lock(mCodecMutex);
    if (mContext == nullptr || mFrame == nullptr || in == nullptr || inSize == 0) {
      VEL_ERROR("inbuf: %p, inbufSize: %u, decoder ctx: %p, avframe: %p\n", static_cast<const void*>(in.get()), inSize,
                static_cast<void*>(mContext.get()), static_cast<void*>(mFrame.get()));
      return -1;
    }
    const std::int64_t now = WallClockMs();
    mStartTime = now;
    VEL_DEBUG("[UVC tuning] Start decode frame[%lld] at [%lld]", static_cast<long long>(index),
              static_cast<long long>(now));
    result = Send(in.get(), inSize, index);
    mSent = true;
  }
  mCodecChanged.NotifyOne();
  FrameBlocks::Give(std::exchange(in, nullptr), inSize);
  if (result != 0) {
    VEL_ERROR("Do async decode fail (%d), frame size:%d\n", result, static_cast<int>(inSize));
    return -1;
  }
  return 0;
}

bool UVCDecoder::AwaitPicture(AVFrame& picture, int& result) {
  MutexLock lock(mCodecMutex);
  while (true) {
    while (mRunning && !mSent) {
      mCodecChanged.Wait(lock);
    }
    if (!mRunning) {
      return false;
    }
    result = avcodec_receive_frame(mContext.get(), &picture);
    if (result != AVERROR(EAGAIN)) {
      // A codec at its end says so again and again.
      mSent = result != AVERROR_EOF;
      return true;
    }
    mSent = false;
  }
}

void UVCDecoder::DecodeThread(_UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format) {
  const FramePtr picture(av_frame_alloc());
  int result = 0;
  while (picture != nullptr && AwaitPicture(*picture, result)) {
    if (result == 0) {
      PassOn(*picture, type, format);
      av_frame_unref(picture.get());
    } else {
      VEL_ERROR("Decode fail (%d)\n", result);
    }
  }
  VEL_DEBUG("UVC decode thread exit\n");
}

void UVCDecoder::PassOn(const AVFrame& frame, _UVC_DECODER_TYPE type, _UVC_DECODER_OUTPUT_FORMAT format) {
  const DecodedPicture picture(frame, type, format);
  const std::uint32_t size = picture.Bytes();
  picture.LogFormat();
  if (oskeloLogIsOn(OSKELO_LOG_DEBUG) != 0) {
    const std::int64_t now = WallClockMs();
    VEL_DEBUG("[UVC tuning] Finish decode frame index[%lld] at [%lld], cost[%lld]",
              static_cast<long long>(picture.Index()), static_cast<long long>(now),
              static_cast<long long>(now - mStartTime));
    VEL_DEBUG("decode success, frame size[%d]\n", static_cast<int>(size));
  }
  if (size > 0 && mHandler != nullptr) {
    mHandler->OnFinishDecodePicture(picture);
  }
}

int UVCDecoder::Release() {
  {
    const MutexLock lock(mCodecMutex);
    mRunning = false;
  }
  mCodecChanged.NotifyAll();
  if (mThread.joinable()) {
    mThread.join();
  }
  const MutexLock lock(mCodecMutex);
  mContext.reset();
  mFrame.reset();
  mBlocks.reset();
  mLogRoute.reset();
  return 0;
}

void UVCDecoder::YUV420PToYUV422(const std::uint8_t* const planes[3], const int lineSizes[3], std::uint8_t* out,
                                 int width, int height) {
  PlanarToYuyv(ChromaLayout::k420, {planes[0], lineSizes[0]}, {planes[1], lineSizes[1]}, {planes[2], lineSizes[2]}, out,
               width, height);
}

}  // namespace vel
