#ifndef VIRTUSB_TESTS_POLICYS_CODEC_ENCODED_FRAMES_H
#define VIRTUSB_TESTS_POLICYS_CODEC_ENCODED_FRAMES_H

#include <cstdint>
#include <utility>

#include "Scene.h"
#include "policys/FrameBlocks.h"
#include "policys/UVCDecoderHandler.h"
#include "policys/UVCEncoderHandler.h"
#include "support/Collected.h"

namespace vel::test {

struct Delivered {
  std::int64_t index;
  Bytes bytes;
};

// Takes down what an encoder or a decoder delivers.
class Deliveries : public UVCEncoderHandler, public UVCDecoderHandler {
 public:
  void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int /*result*/) override {
    const HeapBlock block(data);
    frames.Add({index, {data, data + length}});
  }
  void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) override {
    frames.Add({index, {data, data + length}});
  }

  Collected<Delivered> frames;
};

}  // namespace vel::test

#endif
