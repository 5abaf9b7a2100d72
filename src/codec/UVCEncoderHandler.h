#ifndef VEL_CODEC_UVC_ENCODER_HANDLER_H
#define VEL_CODEC_UVC_ENCODER_HANDLER_H

#include <cstdint>

namespace vel {

class UVCEncoderHandler {
 public:
  // One access unit: the index of the frame that it was made of, and a malloc block that the handler takes over.
  // `result` is what the encoder returned, 0 or above. The encoder's worker thread; no lock is held; must not release
  // the encoder.
  virtual void OnFinishEncode(std::uint32_t index, std::uint8_t* data, std::uint32_t length, int result) = 0;
  virtual ~UVCEncoderHandler() = default;

 protected:
  UVCEncoderHandler() = default;
  UVCEncoderHandler(const UVCEncoderHandler&) = default;
  UVCEncoderHandler& operator=(const UVCEncoderHandler&) = default;
};

}  // namespace vel

#endif
