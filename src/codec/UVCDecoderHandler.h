#ifndef VEL_CODEC_UVC_DECODER_HANDLER_H
#define VEL_CODEC_UVC_DECODER_HANDLER_H

#include <cstdint>

#include "codec/FrameBlocks.h"

struct AVFrame;

namespace vel {

class UVCDecoderHandler {
 public:
  // One picture: its bytes, which stay the decoder's and are valid during the call, and the index
  // of the frame that it was made of. The decoder's worker thread; no lock is held; must not
  // release the decoder.
  virtual void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) = 0;
  // The same with the picture's block, which the handler may take. Otherwise it stays the
  // decoder's.
  virtual void OnFinishDecodeBlock(HeapBlock& block, std::uint32_t length, std::int64_t index) {
    OnFinishDecode(block.get(), length, index);
  }
  // Offered first: the picture itself, whose pts is that index. A handler that can do with it keeps a reference and
  // returns true; else the picture is converted and comes as above.
  virtual bool OnFinishDecodePicture(const AVFrame& /*picture*/) { return false; }
  virtual ~UVCDecoderHandler() = default;

 protected:
  UVCDecoderHandler() = default;
  UVCDecoderHandler(const UVCDecoderHandler&) = default;
  UVCDecoderHandler& operator=(const UVCDecoderHandler&) = default;
};

}  // namespace vel

#endif
