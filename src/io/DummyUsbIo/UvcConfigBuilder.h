#ifndef VEL_IO_DUMMY_USB_IO_UVC_CONFIG_BUILDER_H
#define VEL_IO_DUMMY_USB_IO_UVC_CONFIG_BUILDER_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "io/DummyUsbIo/ICamera.h"

namespace vel {

// Writes the configuration descriptor of the emulated camera (UVC 1.00): a control interface and a streaming interface
// that offers each size as YUY2 and, when asked to, before that as MJPEG.
//
// Bit rates, buffer sizes and the interval are those of 640x480 at 30 frames per second for every size: remote
// sides compare these bytes, and a guest reads the real size from the probe. The steps are called in this order, each
// once.
class UvcConfigBuilder {
 public:
  // A format counts its frames in 8 bits.
  static constexpr std::size_t kMaxSizes = 255;

  explicit UvcConfigBuilder(bool offersMjpeg) : mOffersMjpeg(offersMjpeg) {}

  void CreateConfigHeader();
  void CreateCtrlInterface();
  // Alternate setting 0 without endpoint, and 1 to 4 with the same isochronous one; at most kMaxSizes sizes.
  void CreateVsInterface(std::span<const _CameraParam> sizes);

  std::size_t TotalLength() const { return mBytes.size(); }
  // The bytes, with their length filled in.
  std::vector<std::uint8_t> Take();

 private:
  void AppendCtrlIfInfo();
  void AppendVsIfInfo(std::span<const _CameraParam> sizes);
  void AppendFormat(std::span<const std::uint8_t> format, std::span<const std::uint8_t> frame, std::uint8_t formatIndex,
                    std::span<const _CameraParam> sizes);
  void AppendInterface(std::uint8_t number, std::uint8_t altSetting, std::uint8_t endpoints, std::uint8_t subclass);
  void Append(std::span<const std::uint8_t> bytes);
  void Store16(std::size_t position, std::size_t value);

  const bool mOffersMjpeg;
  std::vector<std::uint8_t> mBytes;
};

}  // namespace vel

#endif
