#include "policys/UVCFrameManager.h"

#include <atomic>
#include <cstring>
#include <utility>

#include "base/VelLog.h"
#include "codec/DecodedPicture.h"
#include "codec/ThinnedQueue.h"
#include "policys/UVCDecoder.h"

namespace vel {
namespace {

// When the last frame was encoded, by whichever manager of the process.
std::atomic<std::int64_t> gLastEncodedTime{0};

bool IsEncoded(_UVC_FRAME_TYPE type) {
  return type == UVC_FRAME_TYPE_H264 || type == UVC_FRAME_TYPE_H265;
}

}  // namespace

// What lives from Init to Release. Shared with the calls that are under way, so that Release waits for none of them and
// what a late one brings ends with its own stream.
struct UVCFrameManager::Stream {
  int width = 0;  // Pixels.
  int height = 0;
  FrameBlocks::User blocks;
  ThinnedQueue<UVCFramePtr> out{"output"};
  std::unique_ptr<UVCEncoder> encoder;  // Null: not needed.
  std::unique_ptr<UVCDecoder> decoder;
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
  if (!IsPictureSizeUsable(width, height)) {
    VEL_ERROR("pictures of %dx%d are refused", width, height);
    return nullptr;
  }
  auto stream = std::make_unique<Stream>();
  stream->width = width;
  stream->height = height;
  stream->out.Open();
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
  former->out.Clear();
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
    stream->encoder->EncodeAsync(owned);
  } else {
    Finish(*stream, std::move(owned));
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
}

void UVCFrameManager::OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) {
  const std::shared_ptr<Stream> stream = CurrentStream();
  HeapBlock copy = stream == nullptr ? nullptr : FrameBlocks::Take(length);
  if (copy != nullptr) {
    std::memcpy(copy.get(), data, length);
    TakeDecoded(*stream, std::move(copy), length, index);
  }
}

void UVCFrameManager::OnFinishDecodePicture(const DecodedPicture& picture) {
  const std::shared_ptr<Stream> stream = CurrentStream();
  if (stream == nullptr) {
    return;
  }
  if (stream->encoder != nullptr && picture.Width() == stream->width && picture.Height() == stream->height) {
    if (FramePtr planar = picture.AsPlanar420()) {
      stream->encoder->EncodeAsync(planar, static_cast<std::uint32_t>(picture.Index()));
      return;
    }
  }
  if (HeapBlock block = picture.ToBlock()) {
    TakeDecoded(*stream, std::move(block), picture.Bytes(), picture.Index());
  }
}

void UVCFrameManager::TakeDecoded(Stream& stream, HeapBlock block, std::uint32_t length, std::int64_t index) {
  UVCFramePtr frame = MakeUvcFrame(std::move(block), length, static_cast<std::uint32_t>(index));
  if (frame == nullptr) {
    return;
  }
  if (stream.encoder != nullptr) {
    stream.encoder->EncodeAsync(frame);
  } else {
    Finish(stream, std::move(frame));
  }
}

void UVCFrameManager::Finish(Stream& stream, UVCFramePtr frame) {
  if (stream.out.Push(frame) != 0 && mListener) {
    mListener();
  }
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
    Finish(*stream, std::move(owned));
  }
  return 0;
}

}  // namespace vel
