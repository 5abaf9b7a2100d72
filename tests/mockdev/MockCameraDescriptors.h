#ifndef VIRTUSB_TESTS_MOCKDEV_MOCK_CAMERA_DESCRIPTORS_H
#define VIRTUSB_TESTS_MOCKDEV_MOCK_CAMERA_DESCRIPTORS_H

#include <array>
#include <cstdint>
#include <vector>

namespace vel {

// Width and height of the frames of both formats, pixels.
inline constexpr std::array<std::array<int, 2>, 2> kMockCameraSizes = {{{640, 480}, {320, 240}}};

std::vector<std::uint8_t> MockCameraDevice(std::uint8_t usbClass);
std::vector<std::uint8_t> MockCameraConfiguration(bool bulk);

}  // namespace vel

#endif
