#include "policys/UVCFrame.h"

#include <cstdlib>
#include <utility>

#include "VelLog.h"

namespace vel {

void FreeUvcFrame(UVC_FRAME* frame) {
  if (frame != nullptr) {
    FrameBlocks::Give(TakeFrameData(*frame), frame->length);
    std::free(frame);
  }
}

UVCFramePtr MakeUvcFrame(HeapBlock data, std::uint32_t length, std::uint32_t index) {
  UVCFramePtr frame(static_cast<UVC_FRAME*>(std::calloc(1, sizeof(UVC_FRAME))));
  if (frame != nullptr) {
    frame->data = data.release();
    frame->length = length;
    frame->index = index;
  }
  return frame;
}

HeapBlock TakeFrameData(UVC_FRAME& frame) {
  HeapBlock data(frame.data);
  frame.data = nullptr;
  return data;
}

int FrameListResize(std::uint32_t cacheSize, UVCFrameList& list) {
  const std::size_t count = list.size();
  std::size_t interval = 1;
  for (std::size_t k = 1; k < count; ++k) {
    if (count / k <= cacheSize) {
      interval = k - 1;
      VEL_DEBUG("[UVC tuning] Output frame list size:%lu, cache size: %u, interval: %d\n",
                static_cast<unsigned long>(count), cacheSize, static_cast<int>(interval));
      break;
    }
  }
  if (list.empty()) {
    return 0;
  }
  const std::size_t groups = count / (interval + 1);
  auto place = list.begin();
  for (std::size_t group = 0; group < groups; ++group) {
    ++place;
    for (std::size_t i = 0; i < interval; ++i) {
      if (place == list.end()) {
        VEL_DEBUG("UVC: reach frame list end:%d, %d \n", static_cast<int>(group), static_cast<int>(i));
        break;
      }
      place = list.erase(place);
    }
  }
  VEL_DEBUG("UVC: output queue size after resize: %lu \n", static_cast<unsigned long>(list.size()));
  return 0;
}

int FrameListFlush(UVCFrameList& list) {
  list.clear();
  return 0;
}

}  // namespace vel
