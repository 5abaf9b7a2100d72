// What a USB Video Class camera says of its stream, read from its configuration as values.
#ifndef VIRTUSB_HOST_REMOTE_CAMERA_MODEL_H
#define VIRTUSB_HOST_REMOTE_CAMERA_MODEL_H

#include <cstdint>
#include <optional>
#include <vector>

#include "remote/ConfigModel.h"

namespace vel {

// How a picture is written down.
enum class PictureFormat : std::uint8_t { kYuyv, kMjpeg, kH264, kOther };

// One size in one format.
struct CameraMode {
  PictureFormat format = PictureFormat::kOther;
  std::uint8_t formatIndex = 0;
  std::uint8_t frameIndex = 0;
  bool isDefault = false;   // Of its format.
  std::uint16_t width = 0;  // Pixels.
  std::uint16_t height = 0;
  std::uint32_t interval = 0;  // Between two pictures, 100 ns.
};

// An alternate setting by which the stream is started.
struct CameraSetting {
  std::uint8_t number = 0;
  std::uint32_t bytesPerInterval = 0;  // What its endpoint carries in a (micro)frame.
};

struct CameraModel {
  std::uint8_t interfaceNumber = 0;
  std::uint8_t endpoint = 0;
  std::uint16_t controlLength = 0;  // Of the probe and commit controls, bytes.
  std::vector<CameraMode> modes;    // In the camera's order.
  // In the camera's order, without setting 0. A camera that streams over bulk has none.
  std::vector<CameraSetting> settings;
};

// Nothing when the device has no video-streaming interface that sends. Descriptors that are too short for what they are
// to say are left out.
std::optional<CameraModel> ReadCameraModel(const ConfigModel& config);

}  // namespace vel

#endif
