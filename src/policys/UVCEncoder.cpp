#include "policys/UVCEncoder.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <exception>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "base/VelLog.h"
#include "pixel/PixelConvert.h"
#include "policys/Encoder/FFmpegEncoder.h"
#include "vel/Processors.h"

namespace vel {
namespace {

// One numbering of pictures for all encoders of the process.
std::int64_t NextPictureNumber() {
  static std::atomic<std::int64_t> number{0};
  return number.fetch_add(1, std::memory_order_relaxed);
}

struct Settings {
  int belowHeight;
  std::int64_t bitRate;
  int framesPerSecond;
  int gopSize;
};
constexpr Settings kSettings[] = {
    {481, 800000, 15, 5},
    {1080, 1000000, 25, 25},
    {1536, 1500000, 25, 25},
    {std::numeric_limits<int>::max(), 1500000, 25, 25},
};

// A thread for each so many pixels. Fewer take one thread milliseconds, and threads that wait for each other bring
// little on two processors: 0.8 ms of 6 at 1920x1080, and nothing where others want the processors, too (measured).
constexpr std::int64_t kPixelsPerThread = std::int64_t{1920} * 1080;
// Slices cost quality, about 0.15 dB at this number, and the client's other work its processors.
constexpr unsigned kMaxThreads = 4;

std::int32_t ThreadsFor(int width, int height) {
  const std::int64_t most = std::min(UsableProcessors(), kMaxThreads);
  return static_cast<std::int32_t>(std::clamp(std::int64_t{width} * height / kPixelsPerThread, std::int64_t{1}, most));
}

EncoderParam ParamFor(int width, int height) {
  const Settings& settings = *std::find_if(std::begin(kSettings), std::end(kSettings) - 1,
                                           [height](const Settings& row) { return height < row.belowHeight; });
  EncoderParam param;
  param.width = width;
  param.height = height;
  param.bitRate = settings.bitRate;
  param.gopSize = settings.gopSize;
  param.timeBase = {1, settings.framesPerSecond};
  param.frameRate = {settings.framesPerSecond, 1};
  param.threads = ThreadsFor(width, height);
  return param;
}

std::size_t PackedBytes(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 2;
}

PlaneOut Plane(const AVFrame& frame, int plane) {
  return {frame.data[plane], frame.linesize[plane]};
}

}  // namespace

UVCEncoder::UVCEncoder() = default;

UVCEncoder::~UVCEncoder() {
  Release();
}

int UVCEncoder::Init(_UVC_ENCODER_TYPE type, int width, int height, UVCEncoderHandler* handler, CameraFuns* camera) {
  Release();
  VEL_DEBUG("UVCEncoderType[%d], width[%d], height[%d]", static_cast<int>(type), width, height);
  mLogRoute.emplace();
  {
    const MutexLock lock(mCodecMutex);
    mWidth = width;
    mHeight = height;
    if (!OpenEncoder(type)) {
      mEncoder.reset();
      mFrame.reset();
      mPacket.reset();
      mLogRoute.reset();
      return -1;
    }
  }
  mBlocks.emplace();
  mHandler = handler;
  mCamera = camera;
  mInputs.Open();
  try {
    mThread = std::thread([this] { EncodeThread(); });
  } catch (const std::exception&) {
    // Deliberately no failure: an encoder without worker still encodes on the caller's thread.
    VEL_ERROR("init decoder failed\n");
  }
  return 0;
}

bool UVCEncoder::OpenEncoder(_UVC_ENCODER_TYPE type) {
  if (!IsPictureSizeUsable(mWidth, mHeight)) {
    VEL_ERROR("pictures of %dx%d are refused", mWidth, mHeight);
    return false;
  }
  mPacket.reset(av_packet_alloc());
  if (mPacket == nullptr) {
    VEL_ERROR("alloc packet failed\n");
    return false;
  }
  EncoderParam param = ParamFor(mWidth, mHeight);
  if (type == UVC_ENCODER_TYPE_H265) {
    VEL_ERROR("Do not support H265 in this platform.\n");
    return false;
  }
  mFrame.reset(av_frame_alloc());
  if (mFrame == nullptr) {
    VEL_ERROR("Could not allocate video frame\n");
    return false;
  }
  mFrame->format = param.pixelFormat;
  mFrame->width = mWidth;
  mFrame->height = mHeight;
  if (av_frame_get_buffer(mFrame.get(), 0) < 0) {
    VEL_ERROR("Could not allocate the video frame data\n");
    return false;
  }
  mEncoder.reset(new (std::nothrow) FFmpegEncoder(false));
  if (mEncoder == nullptr) {
    VEL_ERROR("create encoder failed\n");
    return false;
  }
  if (mEncoder->open(param) != 0) {
    VEL_ERROR("Encoder open failed\n");
    return false;
  }
  return true;
}

int UVCEncoder::EncodeAsync(UVC_FRAME* frame) {
  UVCFramePtr owned(frame);
  const int result = EncodeAsync(owned);
  static_cast<void>(owned.release());  // Null when it was taken.
  return result;
}

int UVCEncoder::EncodeAsync(UVCFramePtr& frame) {
  return Queue(frame, frame == nullptr ? 0 : frame->index);
}

int UVCEncoder::EncodeAsync(FramePtr& picture, std::uint32_t index) {
  return Queue(picture, index);
}

// Takes the picture unless it fails.
template <class Picture>
int UVCEncoder::Queue(Picture& picture, std::uint32_t index) {
  if (!mInputs.IsOpen()) {
    VEL_ERROR("Encoder thread is not ready");
    return -1;
  }
  if (picture == nullptr) {
    return -1;
  }
  Input input{index, std::move(picture)};
  const std::size_t waiting = mInputs.Push(input);
  if (waiting == 0) {  // Released meanwhile, or no memory.
    picture = std::get<Picture>(std::move(input.picture));
    return -1;
  }
  VEL_DEBUG("[UVC tuning] Encoder in framelist size[%lu]", static_cast<unsigned long>(waiting));
  return 0;
}

void UVCEncoder::EncodeThread() {
  while (Input* const input = mInputs.Front()) {
    EncodeInput(*input);
  }
  VEL_DEBUG("Encode thread exit.");
}

void UVCEncoder::EncodeInput(Input& input) {
  HeapBlock out;
  std::uint32_t outLength = 0;
  int result = -1;
  {
    const MutexLock lock(mCodecMutex);
    result = std::visit([this](const auto& picture) VEL_REQUIRES(mCodecMutex) { return EncodePicture(picture); },
                        input.picture);
    if (result == 0) {
      outLength = static_cast<std::uint32_t>(mPacket->size);
      out = FrameBlocks::Take(outLength);
      if (out == nullptr) {
        result = AVERROR(ENOMEM);
      } else {
        std::memcpy(out.get(), mPacket->data, outLength);
      }
    }
    av_packet_unref(mPacket.get());
  }
  const std::uint32_t index = input.index;
  mInputs.PopFront();
  if (result < 0) {
    VEL_ERROR("encode failed[%d]\n", result);
  } else if (mHandler != nullptr) {
    mHandler->OnFinishEncode(index, out.release(), outLength, result);
  }
}

int UVCEncoder::Encode(const std::uint8_t* data, std::uint32_t length, std::uint8_t* out, std::uint32_t* outLength) {
  *outLength = 0;
  const MutexLock lock(mCodecMutex);
  int result = EncodePicture(data, length);
  if (result == 0) {
    const auto size = static_cast<std::size_t>(mPacket->size);
    if (size > PackedBytes(mWidth, mHeight)) {
      VEL_ERROR("the access unit has %zu bytes, more than the picture", size);
      result = AVERROR(ENOSPC);
    } else {
      std::memcpy(out, mPacket->data, size);
      *outLength = static_cast<std::uint32_t>(size);
    }
  }
  if (mPacket != nullptr) {
    av_packet_unref(mPacket.get());
  }
  return result;
}

int UVCEncoder::EncodePicture(const std::uint8_t* data, std::uint32_t length) {
  if (mEncoder == nullptr) {
    VEL_ERROR("Encoder is not ready\n");
    return -1;
  }
  if (av_frame_make_writable(mFrame.get()) < 0) {
    VEL_ERROR("the frame is unwriteable\n");
    return -1;
  }
  mFrame->pts = NextPictureNumber();
  if (data == nullptr || length < PackedBytes(mWidth, mHeight)) {
    SetDummyPicData(EncoderType::kSoftware, mFrame.get());
  } else {
    YuyvToPlanar(data, Plane(*mFrame, 0), Plane(*mFrame, 1), Plane(*mFrame, 2), mWidth, mHeight);
  }
  return mEncoder->encode(mFrame.get(), mPacket.get());
}

int UVCEncoder::EncodePicture(const UVCFramePtr& frame) {
  return EncodePicture(frame->data, frame->length);
}

int UVCEncoder::EncodePicture(const FramePtr& planes) {
  if (planes->width != mWidth || planes->height != mHeight) {
    return AVERROR(EINVAL);
  }
  planes->pts = NextPictureNumber();
  return mEncoder->encode(planes.get(), mPacket.get());
}

int UVCEncoder::Release() {
  mInputs.Close();
  if (mThread.joinable()) {
    mThread.join();
  }
  const MutexLock lock(mCodecMutex);
  if (mEncoder == nullptr) {
    return 0;
  }
  mInputs.Clear();
  mEncoder->encode(nullptr, mPacket.get());
  av_packet_unref(mPacket.get());
  mEncoder->close();
  mEncoder.reset();
  mFrame.reset();
  mPacket.reset();
  mBlocks.reset();
  mLogRoute.reset();
  VEL_DEBUG("resource release done\n");
  return 0;
}

void UVCEncoder::YUYVToNV12(const std::uint8_t* src, std::uint8_t* dstY, std::uint8_t* dstUV, int width, int height) {
  if (!IsPictureSizeUsable(width, height)) {
    return;
  }
  std::uint8_t* uv = dstUV != nullptr ? dstUV : dstY + PackedBytes(width, height) / 2;
  YuyvToSemiPlanar(src, {dstY, width}, {uv, std::ptrdiff_t{width / 2} * 2}, width, height);
}

void UVCEncoder::YUYVToYUV420P(const std::uint8_t* src, std::uint8_t* dst, int width, int height) {
  if (!IsPictureSizeUsable(width, height)) {
    return;
  }
  const std::size_t pixels = PackedBytes(width, height) / 2;
  YuyvToPlanar(src, {dst, width}, {dst + pixels, width / 2}, {dst + pixels * 5 / 4, width / 2}, width, height);
}

void UVCEncoder::SetDummyPicData(EncoderType type, AVFrame* frame) {
  const std::int64_t i = frame->pts;
  for (int y = 0; y < frame->height; ++y) {
    for (int x = 0; x < frame->width; ++x) {
      frame->data[0][y * frame->linesize[0] + x] = static_cast<std::uint8_t>(x + y + i * 3);
    }
  }
  // Chroma samples are beside each other in NV12, and in planes of their own otherwise.
  const bool interleaved = type == EncoderType::kHardware;
  const int step = interleaved ? 2 : 1;
  std::uint8_t* const cb = frame->data[1];
  std::uint8_t* const cr = interleaved ? frame->data[1] + 1 : frame->data[2];
  const int crStride = interleaved ? frame->linesize[1] : frame->linesize[2];
  for (int y = 0; y < (frame->height + 1) / 2; ++y) {
    for (int x = 0; x < (frame->width + 1) / 2; ++x) {
      cb[y * frame->linesize[1] + x * step] = static_cast<std::uint8_t>(128 + y + i * 2);
      cr[y * crStride + x * step] = static_cast<std::uint8_t>(64 + x + i * 5);
    }
  }
}

}  // namespace vel
