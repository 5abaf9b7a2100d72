#include "codec/UVCFrame.h"

#include <cstdlib>

#include "codec/FrameBlocks.h"
#include "codec/FrameThinning.h"

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
  ThinFrames(cacheSize, list, "output");
  return 0;
}

int FrameListFlush(UVCFrameList& list) {
  list.clear();
  return 0;
}

}  // namespace vel
