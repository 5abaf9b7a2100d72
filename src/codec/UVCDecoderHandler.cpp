#include "codec/UVCDecoderHandler.h"

#include <utility>

#include "codec/DecodedPicture.h"

namespace vel {

void UVCDecoderHandler::OnFinishDecodePicture(const DecodedPicture& picture) {
  HeapBlock block = picture.ToBlock();
  if (block != nullptr) {
    OnFinishDecode(block.get(), picture.Bytes(), picture.Index());
    FrameBlocks::Give(std::move(block), picture.BlockBytes());
  }
}

}  // namespace vel
