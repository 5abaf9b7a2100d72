#include "V4l2Buffers.h"

#include <algorithm>
#include <cerrno>

namespace oskelo {
namespace {

constexpr std::uint32_t kBuffers = 4;  // One at the callback, one being filled, two against jitter.

int Request(V4l2Device& device, v4l2_requestbuffers& request) {
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  return device.Ioctl(VIDIOC_REQBUFS, &request);
}

}  // namespace

V4l2Buffers::~V4l2Buffers() {
  if (mStreaming) {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    mDevice.Ioctl(VIDIOC_STREAMOFF, &type);
  }
  for (const std::span<std::uint8_t> mapped : mMapped) {
    mDevice.Unmap(mapped.data(), mapped.size());
  }
  v4l2_requestbuffers none{};
  Request(mDevice, none);
}

v4l2_buffer V4l2Buffers::Describe(std::uint32_t index) {
  v4l2_buffer buffer{};
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  buffer.index = index;
  return buffer;
}

int V4l2Buffers::Start() {
  v4l2_requestbuffers request{};
  request.count = kBuffers;
  int result = Request(mDevice, request);
  if (result == 0 && request.count == 0) {
    result = -ENOMEM;
  }
  for (std::uint32_t index = 0; result == 0 && index < request.count; ++index) {
    v4l2_buffer buffer = Describe(index);
    result = mDevice.Ioctl(VIDIOC_QUERYBUF, &buffer);
    if (result == 0) {
      auto* memory = static_cast<std::uint8_t*>(mDevice.Map(buffer.length, buffer.m.offset));
      if (memory == nullptr) {
        return -ENOMEM;
      }
      mMapped.emplace_back(memory, buffer.length);
      result = Return(index);
    }
  }
  if (result == 0) {
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    result = mDevice.Ioctl(VIDIOC_STREAMON, &type);
    mStreaming = result == 0;
  }
  return result;
}

int V4l2Buffers::Take(Filled& filled) {
  v4l2_buffer buffer = Describe(0);
  const int result = mDevice.Ioctl(VIDIOC_DQBUF, &buffer);
  if (result < 0) {
    return result;
  }
  if (buffer.index >= mMapped.size()) {
    return -EPROTO;
  }
  const std::span<std::uint8_t> mapped = mMapped[buffer.index];
  filled = {.index = buffer.index,
            .broken = (buffer.flags & V4L2_BUF_FLAG_ERROR) != 0,
            .bytes = mapped.first(std::min<std::size_t>(buffer.bytesused, mapped.size()))};
  return 0;
}

int V4l2Buffers::Return(std::uint32_t index) {
  v4l2_buffer buffer = Describe(index);
  return mDevice.Ioctl(VIDIOC_QBUF, &buffer);
}

}  // namespace oskelo
