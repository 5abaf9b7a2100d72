#ifndef VEL_UVC_UVC_BLOCK_FILTER_H
#define VEL_UVC_UVC_BLOCK_FILTER_H

#include <cstdint>
#include <span>

namespace vel {

// Rewrites a video-streaming block in place without the frames taller than `maxHeight` pixels and returns its new
// length, which is also its new wTotalLength. Frames keep their bFrameIndex, gaps included; still-image and
// colour-matching descriptors stay where there are any; descriptors are moved whole, whatever their length. What is
// broken or behind the last counted descriptor is left out, and the counts follow. A block without a whole input header
// is not touched. Any thread.
std::uint32_t FilterUVCBlock(std::span<std::uint8_t> block, std::uint32_t maxHeight);

}  // namespace vel

#endif
