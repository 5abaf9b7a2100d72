#ifndef VIRTUSB_TESTS_SUPPORT_CAMERA_START_H
#define VIRTUSB_TESTS_SUPPORT_CAMERA_START_H

#include <array>
#include <cstring>
#include <memory>

#include "remote/RequestBuilder.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel::test {

// The requests after which the emulated camera streams.
inline std::array<std::unique_ptr<VelPacket>, 3> CameraStart(RequestId id) {
  UVCStreamCtrl ctrl{};
  ctrl.bFormatIndex = ctrl.bFrameIndex = 1;
  ctrl.dwMaxVideoFrameSize = 640 * 480 * 2;
  std::array<std::uint8_t, 26> block{};
  std::memcpy(block.data(), &ctrl, block.size());
  return {BuildRequest(Command::kOpenUsbDev, id), BuildControlRequest(id, {0x21, 0x01, 0x0200, 1, 26}, 0, block),
          BuildAltSettingRequest(id, 1, 1)};
}

}  // namespace vel::test

#endif
