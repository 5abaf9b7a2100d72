#ifndef OSKELO_CAMERA_V4L2_BUFFERS_H
#define OSKELO_CAMERA_V4L2_BUFFERS_H

#include <linux/videodev2.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "V4l2Device.h"

namespace oskelo {

// The buffers of one stream, shared with the kernel: mapped and queued at the start, given back at
// the end, the stream with them. One thread.
class V4l2Buffers {
 public:
  explicit V4l2Buffers(V4l2Device& device) : mDevice(device) {}
  V4l2Buffers(const V4l2Buffers&) = delete;
  V4l2Buffers& operator=(const V4l2Buffers&) = delete;
  ~V4l2Buffers();

  // 0 or a negative errno value, as below.
  int Start();

  // A filled buffer, to be given back with Return.
  struct Filled {
    std::uint32_t index = 0;
    bool broken = false;
    std::span<std::uint8_t> bytes;
  };
  // -EAGAIN when there is none.
  int Take(Filled& filled);
  int Return(std::uint32_t index);

 private:
  static v4l2_buffer Describe(std::uint32_t index);

  V4l2Device& mDevice;
  std::vector<std::span<std::uint8_t>> mMapped;
  bool mStreaming = false;
};

}  // namespace oskelo

#endif
