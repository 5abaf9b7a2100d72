#ifndef VEL_PIXEL_BGRX_TO_YUYV_H
#define VEL_PIXEL_BGRX_TO_YUYV_H

#include <cstdint>
#include <span>

namespace vel {

// Converts a picture of 32-bit pixels (blue, green, red, an unused byte) for camera sources that
// deliver such. Each pair of pixels becomes Y0 U Y1 V; an odd last column is skipped, so that a row
// is 4 * (width / 2) bytes.
//
// False, with nothing written, when `bgrx` (4 bytes per pixel) or `yuyv` is too short. Any thread.
bool BgrxToYuyv(std::span<const std::uint8_t> bgrx, std::uint32_t width, std::uint32_t height,
                std::span<std::uint8_t> yuyv);

}  // namespace vel

#endif
