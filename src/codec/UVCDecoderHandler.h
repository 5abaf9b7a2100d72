#ifndef VEL_CODEC_UVC_DECODER_HANDLER_H
#define VEL_CODEC_UVC_DECODER_HANDLER_H

#include <cstdint>

#include "base/ModuleExport.h"

namespace vel {

class DecodedPicture;

class VEL_MODULE_EXPORT UVCDecoderHandler {
 public:
  // One picture: its bytes, which stay the decoder's and are valid during the call, and the index of the frame that it
  // was made of. The decoder's worker thread; no lock is held; must not release the decoder.
  virtual void OnFinishDecode(std::uint8_t* data, std::uint32_t length, std::int64_t index) = 0;
  // What the decoder calls: the picture as it is, valid during the call, so that a handler copies and converts no more
  // than it needs. This one converts it and calls the above.
  virtual void OnFinishDecodePicture(const DecodedPicture& picture);
  virtual ~UVCDecoderHandler() = default;

 protected:
  UVCDecoderHandler() = default;
  UVCDecoderHandler(const UVCDecoderHandler&) = default;
  UVCDecoderHandler& operator=(const UVCDecoderHandler&) = default;
};

}  // namespace vel

#endif
