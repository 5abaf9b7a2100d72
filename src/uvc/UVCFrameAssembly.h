#ifndef VEL_UVC_UVC_FRAME_ASSEMBLY_H
#define VEL_UVC_UVC_FRAME_ASSEMBLY_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace vel {

// One frame under assembly. Fills a block that stays its owner's; the next frame is a new object.
class UVCFrameAssembly {
 public:
  // The frame never grows above the block's size, which is the negotiated dwMaxVideoFrameSize.
  explicit UVCFrameAssembly(std::span<std::uint8_t> block) : mBlock(block) {}

  // Copies the bytes behind those that are there. False, and nothing is changed, when they do not fit.
  [[nodiscard]] bool Append(std::span<const std::uint8_t> bytes) {
    if (bytes.size() > mBlock.size() - mLength) {
      return false;
    }
    if (!bytes.empty()) {
      std::memcpy(mBlock.data() + mLength, bytes.data(), bytes.size());
      mLength += bytes.size();
    }
    return true;
  }

  bool Empty() const { return mLength == 0; }
  std::size_t Length() const { return mLength; }  // Bytes.
  std::span<std::uint8_t> Bytes() const { return mBlock.first(mLength); }

 private:
  std::span<std::uint8_t> mBlock;
  std::size_t mLength = 0;
};

}  // namespace vel

#endif
