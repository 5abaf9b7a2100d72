#ifndef VEL_UVC_UVC_BLOCK_LAYOUT_H
#define VEL_UVC_UVC_BLOCK_LAYOUT_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vel {

struct UVCFormatLayout {
  std::span<const std::uint8_t> descriptor;
  std::vector<std::span<const std::uint8_t>> frames;
  std::span<const std::uint8_t> stillImage;     // Empty: there is none.
  std::span<const std::uint8_t> colorMatching;  // Empty: there is none.
};

// Where the descriptors of a video-streaming block lie. Points into the block.
struct UVCBlockLayout {
  std::span<const std::uint8_t> inputHeader;  // Empty: not even the input header is whole.
  std::vector<UVCFormatLayout> formats;
};

// The byte at `index` of a descriptor; 0 where it is too short for that field.
constexpr std::uint8_t DescriptorByte(std::span<const std::uint8_t> descriptor, std::size_t index) {
  return index < descriptor.size() ? descriptor[index] : std::uint8_t{0};
}

// Finds the descriptors by their order, their lengths and the counts in the input header and in the formats; types and
// the block's total length are not looked at. Ends at the last whole descriptor, with one Error line, where a length is
// below 2 or leads out of the block, or a count does. Any thread.
UVCBlockLayout ReadUVCBlock(std::span<const std::uint8_t> block);

// Bytes from `block` to the end of the descriptors that ReadUVCBlock would find if it trusted every length and count.
// The block's total length only tells whether anything is behind the last frame, and not even that where it is smaller
// than what the counts say.
std::size_t TrustedUVCBlockLength(const std::uint8_t* block);

}  // namespace vel

#endif
