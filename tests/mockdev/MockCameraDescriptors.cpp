#include "mockdev/MockCameraDescriptors.h"

#include "mockdev/MockCamera.h"

namespace vel {
namespace {

using Bytes = MockCamera::Bytes;

constexpr std::uint8_t Low(std::size_t value) {
  return static_cast<std::uint8_t>(value);
}
constexpr std::uint8_t High(std::size_t value) {
  return static_cast<std::uint8_t>(value >> 8U);
}

void Append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes StreamingBlock() {
  Bytes block = {15, 0x24, 1, 2, 0, 0, MockCamera::kEndpoint, 0, 2, 0, 0, 0, 1, 0, 0};
  for (std::uint8_t format = 1; format <= 2; ++format) {
    if (format == 1) {
      Append(block, {27, 0x24, 4,    1, 2,    0x59, 0x55, 0x59, 0x32, 0, 0, 0x10, 0, 0x80,
                     0,  0,    0xAA, 0, 0x38, 0x9B, 0x71, 16,   1,    0, 0, 0,    0});
    } else {
      Append(block, {11, 0x24, 6, 2, 2, 0, 1, 0, 0, 0, 0});
    }
    for (std::uint8_t frame = 1; frame <= 2; ++frame) {
      const auto width = static_cast<std::size_t>(kMockCameraSizes[frame - 1U][0]);
      const auto height = static_cast<std::size_t>(kMockCameraSizes[frame - 1U][1]);
      Append(block, {30,          0x24,        Low(format == 1 ? 5 : 7),
                     frame,       0,           Low(width),
                     High(width), Low(height), High(height),
                     0,           0,           0,
                     1,           0,           0,
                     0,           1,           0,
                     0x60,        9,           0,
                     0x15,        0x16,        5,
                     0,           1,           0x15,
                     0x16,        5,           0});
    }
    Append(block, {6, 0x24, 13, 1, 1, 4});
  }
  block[4] = Low(block.size());
  block[5] = High(block.size());
  return block;
}

}  // namespace

Bytes MockCameraDevice(std::uint8_t usbClass) {
  const Bytes ids = {Low(MockCamera::kVendor), High(MockCamera::kVendor), Low(MockCamera::kProduct),
                     High(MockCamera::kProduct)};
  Bytes bytes = {18, 1, 0x00, 0x02, usbClass, 2, 1, 64};
  Append(bytes, ids);
  Append(bytes, {0, 1, 0, 0, 0, 1});
  return bytes;
}

Bytes MockCameraConfiguration(bool bulk) {
  Bytes bytes = {9, 2, 0, 0, 2, 1, 0, 0x80, 250, 8, 11, 0, 2, 14, 3, 0, 0};
  Append(bytes, {9, 4, 0, 0, 0, 14, 1, 0, 0, 13, 0x24, 1, 0, 1, 13, 0, 0, 0, 0, 0, 1, 1});
  Append(bytes, {9, 4, 1, 0, Low(bulk ? 1 : 0), 14, 2, 0, 0});
  Append(bytes, StreamingBlock());
  if (bulk) {
    Append(bytes, {7, 5, MockCamera::kEndpoint, 2, 0x00, 0x02, 0});
  } else {
    // 3 packets of 1024 bytes in a microframe.
    Append(bytes, {9, 4, 1, 1, 1, 14, 2, 0, 0, 7, 5, MockCamera::kEndpoint, 5, 0x00, 0x14, 1});
  }
  bytes[2] = Low(bytes.size());
  bytes[3] = High(bytes.size());
  return bytes;
}

}  // namespace vel
