#include "policys/UVCFrameManager.h"

#include <atomic>
#include <cstring>
#include <utility>

#include "base/VelLog.h"
#include "codec/DecodedPicture.h"
#include "codec/FrameQueue.h"
#include "policys/UVCDecoder.h"

namespace vel {
namespace {

// When the last frame was encoded, by whichever manager of the process.
std::atomic<std::int64_t> gLastEncodedTime{0};

bool IsEncoded(_UVC_FRAME_TYPE type) {
  return type == UVC_FRAME_TYPE_H264 || type == UVC_FRAME_TYPE_H265;
}

}  // namespace

// What lives from Init to Release. Shared with the calls that are under way, so that Release waits
// for none of them and what a late one brings ends with its own stream.
struct UVCFrameManager::Stream {
  int width = 0;  // Pixels.
  int height = 0;
  FrameBlocks::User blocks;
  FrameQueue out;
  std::unique_ptr<UVCEncoder> encoder;  // Null: not needed.
  std::unique_ptr<UVCDecoder> decoder;

  void Encode(UVCFramePtr frame) {
    if (encoder->EncodeAsync(frame.get()) == 0) {
      static_cast<void>(frame.release());
    }
  }
};

UVCFrameManager::UVCFrameManager(_UVC_FRAME_TYPE in, _UVC_FRAME_TYPE out) : mInFrameType(in), mOutFrameType(out) {}

UVCFrameManager::~UVCFrameManager() {
  const MutexLock control(mControlMutex);
  ReplaceStream(nullptr);
}

int UVCFrameManager::Init(std::uint16_t width, std::uint16_t height, _UVC_FRAME_TYPE in, _UVC_FRAME_TYPE out,
                          CameraFuns* camera) {
  VEL_DEBUG("width: %d, height: %d, inFrameType: %d, outFrameType: %d", int{width}, int{height}, static_cast<int>(in),
            static_cast<int>(out));
  const MutexLock control(mControlMutex);
  ReplaceStream(nullptr);
  {
    const MutexLock lock(mStreamMutex);
    mInFrameType = in;
    mOutFrameType = out;
  }
  std::shared_ptr<Stream> stream = MakeStream(width, height, in, out, camera);
  if (stream == nullptr) {
    return -1;
  }
  ReplaceStream(std::move(stream));
  return 0;
}

std::unique_ptr<UVCFrameManager::Stream> UVCFrameManager::MakeStream(int width, int height, _UVC_FRAME_TYPE in,
                                                                     _UVC_FRAME_TYPE out, CameraFuns* camera) {
  auto stream = std::make_unique<Stream>();
  stream->width = width;
  stream->height = height;
  if (in == out) {
    return stream;
  }
  if (IsEncoded(out)) {
    VEL_DEBUG("Init encoder");
    stream->encoder = std::make_unique<UVCEncoder>();
    const auto type = out == UVC_FRAME_TYPE_H265 ? UVC_ENCODER_TYPE_H265 : UVC_ENCODER_TYPE_H264;
    if (stream->encoder->Init(type, width, height, this, camera) != 0) {
      VEL_ERROR("UVC encoder init fail!");
      return nullptr;
    }
  }
  if (in == UVC_FRAME_TYPE_MJPEG) {
    VEL_DEBUG("Init decoder");
    stream->decoder = std::make_unique<UVCDecoder>();
    if (stream->decoder->Init(UVC_DECODER_TYPE_MJPEG, UVC_DECODER_OUTPUT_YUYV, width, height, this) != 0) {
      VEL_ERROR("UVC encoder init fail!");  // The same text for both, deliberately.
      return nullptr;
    }
  }
  return stream;
}

std::shared_ptr<UVCFrameManager::Stream> UVCFrameManager::CurrentStream() {
  const MutexLock lock(mStreamMutex);
  return mStream;
}

void UVCFrameManager::ReplaceStream(std::shared_ptr<Stream> next) {
  std::shared_ptr<Stream> former;
  {
    const MutexLock lock(mStreamMutex);
    former = std::exchange(mStream, std::move(next));
  }
  if (former == nullptr) {
    return;
  }
  former->out.Close();
  // In the order of the frames, so that nothing comes to a coder that has ended.
  if (former->decoder != nullptr) {
    former->decoder->Release();
  }
  if (former->encoder != nullptr) {
    former->encoder->Release();
  }
}

int UVCFrameManager::EnqueueFrame(UVC_FRAME* frame) {
  const std::shared_ptr<Stream> stream = CurrentStream();
  if (stream == nullptr) {
    VEL_ERROR("Frame manager is not ready.");
    return -1;
  }
  if (frame == nullptr) {
    VEL_ERROR("Frame is NULL.");
    return -1;
  }
  UVCFramePtr owned(frame);
  DumpStream(frame->data, frame->length, kDumpRaw);
  if (stream->decoder != nullptr) {
    HeapBlock data = TakeFrameData(*frame);
    stream->decoder->DecodeAsync(data, frame->length, frame->index);
  } else if (stream->encoder != nullptr) {
    stream->Encode(std::move(owned));
  } else {
    stream->out.Push(std::move(owned));
  }
  return 0;
}

UVC_FRAME* UVCFrameManager::DequeueFrame(int timeoutMs) {
  VEL_DEBUG("DequeueFrame start");
  const std::shared_ptr<Stream> stream = CurrentStream();
  if (stream == nullptr) {
    VEL_ERROR("Frame manager is not ready.");
    return nullptr;
  }
  return stream->out.Pop(timeoutMs).release();
}

void UVCFrameManager::OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int /*result*/) {
  HeapBlock block(data);
  if (length == 0) {
    return;
  }
  const auto now = static_cast<std::int64_t>(GetTimeMs());
  const std::int64_t delta = now - gLastEncodedTime.exchange(now, std::memory_order_relaxed);
  UVCFramePtr frame = MakeUvcFrame(std::move(block), length, index);
  if (frame == nullptr) {
    return;
  }
  frame->timestamp = now;
  frame->deltaTime = delta;
  VEL_DEBUG("[UVC tuning] Get new encoded frame: index[%d] length[%d] timestamp[%lld] deltatime[%lld]\n",
            static_cast<int>(index), static_cast<int>(length), static_cast<long long>(now),
            static_cast<long long>(delta));
  DumpStream(frame->data, length, kDumpEncoded);
  PushFrameToOutQ(frame.release());
  if (mListener) {
    mListener();
  }
}

void UVCFrameManager::OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) {
  HeapBlock copy = FrameBlocks::Take(length);
  if (copy != nullptr) {
    std::memcpy(copy.get(), data, length);
    OnFinishDecodeBlock(copy, length, index);
  }
}

void UVCFrameManager::OnFinishDecodeBlock(HeapBlock& block, std::uint32_t length, std::int64_t index) {
  const std::shared_ptr<Stream> stream = CurrentStream();
  if (stream == nullptr) {
    return;
  }
  UVCFramePtr frame = MakeUvcFrame(std::move(block), length, static_cast<std::uint32_t>(index));
  if (frame == nullptr) {
    return;
  }
  if (stream->encoder != nullptr) {
    stream->Encode(std::move(frame));
  } else {
    stream->out.Push(std::move(frame));
    if (mListener) {
      mListener();
    }
  }
}

bool UVCFrameManager::OnFinishDecodePicture(const AVFrame& picture) {
  const std::shared_ptr<Stream> stream = CurrentStream();
  if (stream == nullptr || stream->encoder == nullptr || picture.width != stream->width ||
      picture.height != stream->height) {
    return false;
  }
  FramePtr planar = ViewAsPlanar420(picture, UVC_DECODER_TYPE_MJPEG);
  return planar != nullptr &&
         stream->encoder->EncodePlanarAsync(std::move(planar), static_cast<std::uint32_t>(picture.pts)) == 0;
}

void UVCFrameManager::EnableDumpStream(const char* path, std::uint8_t type) {
  if (path == nullptr) {
    return;
  }
  switch (type) {
    case kDumpRaw:
      mRawDump.Open(path);
      break;
    case kDumpEncoded:
      mEncodedDump.Open(path);
      break;
    default:
      VEL_ERROR("unknow stream type.");
      break;
  }
}

void UVCFrameManager::DisableDumpStream() {
  mRawDump.Close();
  mEncodedDump.Close();
}

void UVCFrameManager::DumpStream(const std::uint8_t* data, std::uint32_t length, std::uint8_t type) {
  if (type == kDumpRaw) {
    mRawDump.Write(data, length);
  } else if (type == kDumpEncoded) {
    mEncodedDump.Write(data, length);
  }
}

void UVCFrameManager::Release() {
  VEL_DEBUG("Release");
  const MutexLock control(mControlMutex);
  ReplaceStream(nullptr);
  DisableDumpStream();
}

int UVCFrameManager::FrameListFlush(UVCFrameList& list) {
  return vel::FrameListFlush(list);
}

int UVCFrameManager::FrameListResize(std::uint32_t cacheSize, UVCFrameList& list) {
  return vel::FrameListResize(cacheSize, list);
}

int UVCFrameManager::PushFrameToOutQ(UVC_FRAME* frame) {
  UVCFramePtr owned(frame);
  const std::shared_ptr<Stream> stream = CurrentStream();
  if (stream != nullptr && owned != nullptr) {
    stream->out.Push(std::move(owned));
  }
  return 0;
}

}  // namespace vel
