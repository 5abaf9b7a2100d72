#ifndef OSKELO_CAMERA_V4L2_SOURCE_H
#define OSKELO_CAMERA_V4L2_SOURCE_H

#include <memory>
#include <string>
#include <vector>

#include "CameraSource.h"
#include "V4l2Buffers.h"
#include "V4l2Device.h"

namespace oskelo {

// A Video4Linux capture device: its YUYV and MJPEG pictures in every size that it lists.
class V4l2Source final : public CameraSource {
 public:
  // Null after an Error line: not a camera, or none of the two formats.
  static std::unique_ptr<V4l2Source> Create(std::string name, std::unique_ptr<V4l2Device> device);

  // Whether the device captures pictures that can be streamed.
  static bool Captures(V4l2Device& device);

  bool Select(const _CameraParam& param) override;
  bool Stream(PictureSink& sink) override;
  void Stop() override { mDevice->Wake(); }
  void Arm() override { mDevice->ClearWake(); }

 private:
  V4l2Source(std::string name, std::unique_ptr<V4l2Device> device)
      : mName(std::move(name)), mDevice(std::move(device)) {}
  void ListFormats();
  void ListSizes(std::uint32_t fourcc, std::uint32_t pixelFormat);
  void AddSize(std::uint32_t width, std::uint32_t height, std::uint32_t pixelFormat);
  bool Capture(V4l2Buffers& buffers, PictureSink& sink);
  void Deliver(std::span<std::uint8_t> bytes, PictureSink& sink);
  bool Fail(const char* what, int result) const;

  const std::string mName;
  const std::unique_ptr<V4l2Device> mDevice;
  _CameraParam mSelected{};
  std::uint32_t mRowBytes = 0;          // Of a YUYV picture as the device gives it.
  std::vector<std::uint8_t> mUnpadded;  // Used when its rows are padded.
};

}  // namespace oskelo

#endif
