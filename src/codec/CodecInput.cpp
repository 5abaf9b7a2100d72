#include "codec/CodecInput.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstring>
#include <limits>

namespace vel {

CodecInput::CodecInput() : mPacket(av_packet_alloc()) {}

AVPacket* CodecInput::Fill(const std::uint8_t* data, std::uint32_t size, std::int64_t pts) {
  constexpr std::uint32_t kMaxSize = std::numeric_limits<int>::max() - AV_INPUT_BUFFER_PADDING_SIZE;
  if (mPacket == nullptr || size > kMaxSize) {
    return nullptr;
  }
  av_packet_unref(mPacket.get());
  mPacket->buf = TakeBuffer(size + std::size_t{AV_INPUT_BUFFER_PADDING_SIZE});
  if (mPacket->buf == nullptr) {
    return nullptr;
  }
  mPacket->data = mPacket->buf->data;
  mPacket->size = static_cast<int>(size);
  mPacket->pts = pts;
  std::memcpy(mPacket->data, data, size);
  std::memset(mPacket->data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
  return mPacket.get();
}

AVBufferRef* CodecInput::TakeBuffer(std::size_t bytes) {
  // Frames of a stream differ a little: some room saves most of the new pools.
  if (mPool == nullptr || bytes > mPoolBytes || bytes < mPoolBytes / 8) {
    mPoolBytes = bytes + bytes / 2;
    mPool.reset(av_buffer_pool_init(mPoolBytes, nullptr));
  }
  return mPool == nullptr ? nullptr : av_buffer_pool_get(mPool.get());
}

}  // namespace vel
