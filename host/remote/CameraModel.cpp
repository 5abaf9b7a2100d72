#include "remote/CameraModel.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <utility>

namespace vel {
namespace {

using Descriptor = std::span<const std::uint8_t>;

// Class, subclasses and descriptor types of UVC 1.5, tables.
constexpr std::uint8_t kVideo = 0x0E;
constexpr std::uint8_t kVideoControl = 1;
constexpr std::uint8_t kVideoStreaming = 2;
constexpr std::uint8_t kClassInterface = 0x24;
constexpr std::uint8_t kControlHeader = 0x01;
constexpr std::uint8_t kInputHeader = 0x01;
constexpr std::uint8_t kFormatUncompressed = 0x04;
constexpr std::uint8_t kFrameUncompressed = 0x05;
constexpr std::uint8_t kFormatMjpeg = 0x06;
constexpr std::uint8_t kFrameMjpeg = 0x07;
constexpr std::uint8_t kFormatFrameBased = 0x10;
constexpr std::uint8_t kFrameFrameBased = 0x11;

constexpr std::uint8_t kEndpointCompanion = 0x30;  // USB 3.2, table 9-6

std::uint16_t U16(Descriptor descriptor, std::size_t offset) {
  return static_cast<std::uint16_t>(descriptor[offset] | (descriptor[offset + 1] << 8U));
}

std::uint32_t U32(Descriptor descriptor, std::size_t offset) {
  return U16(descriptor, offset) | (std::uint32_t{U16(descriptor, offset + 2)} << 16U);
}

bool IsVideo(const AltSettingModel& setting, std::uint8_t subclass) {
  return setting.bInterfaceClass == kVideo && setting.bInterfaceSubClass == subclass;
}

// A class-specific descriptor of this subtype and at least this size.
bool Is(Descriptor descriptor, std::uint8_t subtype, std::size_t size) {
  return descriptor.size() >= size && descriptor[1] == kClassInterface && descriptor[2] == subtype;
}

// UVC 1.5, 4.3.1.1: the control has grown with the class.
std::uint16_t ControlLength(const ConfigModel& config) {
  for (const auto& settings : config.interfaces) {
    if (settings.empty() || !IsVideo(settings[0], kVideoControl)) {
      continue;
    }
    for (const Descriptor descriptor : SplitDescriptors(settings[0].extra)) {
      if (Is(descriptor, kControlHeader, 5)) {
        const std::uint16_t bcdUvc = U16(descriptor, 3);
        return bcdUvc >= 0x0150 ? 48 : bcdUvc >= 0x0110 ? 34 : 26;
      }
    }
  }
  return 26;
}

// By the format's GUID, whose first bytes are its four-character code.
PictureFormat FormatOfGuid(Descriptor format) {
  constexpr std::size_t kGuid = 5;
  constexpr std::array<std::uint8_t, 4> kYuy2 = {'Y', 'U', 'Y', '2'};
  constexpr std::array<std::uint8_t, 4> kH264 = {'H', '2', '6', '4'};
  const Descriptor code = format.subspan(kGuid, 4);
  return std::ranges::equal(code, kYuy2)   ? PictureFormat::kYuyv
         : std::ranges::equal(code, kH264) ? PictureFormat::kH264
                                           : PictureFormat::kOther;
}

// Goes through the descriptors of a streaming interface in their order: formats, each before its frames.
class ModeReader {
 public:
  void Read(Descriptor descriptor) {
    if (Is(descriptor, kFormatUncompressed, 27) || Is(descriptor, kFormatFrameBased, 28)) {
      BeginFormat(FormatOfGuid(descriptor), descriptor, 22);
    } else if (Is(descriptor, kFormatMjpeg, 11)) {
      BeginFormat(PictureFormat::kMjpeg, descriptor, 6);
    } else if (Is(descriptor, kFrameUncompressed, 26) || Is(descriptor, kFrameMjpeg, 26)) {
      AddFrame(descriptor, 21);
    } else if (Is(descriptor, kFrameFrameBased, 26)) {
      AddFrame(descriptor, 17);
    }
  }
  std::vector<CameraMode> Take() { return std::move(mModes); }

 private:
  void BeginFormat(PictureFormat format, Descriptor descriptor, std::size_t defaultFrame) {
    mFormat = format;
    mFormatIndex = descriptor[3];
    mDefaultFrame = descriptor[defaultFrame];
  }
  void AddFrame(Descriptor descriptor, std::size_t defaultInterval) {
    if (mFormatIndex == 0) {
      return;  // Of no format: indexes begin at 1.
    }
    mModes.push_back({.format = mFormat,
                      .formatIndex = mFormatIndex,
                      .frameIndex = descriptor[3],
                      .isDefault = descriptor[3] == mDefaultFrame,
                      .width = U16(descriptor, 5),
                      .height = U16(descriptor, 7),
                      .interval = U32(descriptor, defaultInterval)});
  }

  PictureFormat mFormat = PictureFormat::kOther;
  std::uint8_t mFormatIndex = 0;
  std::uint8_t mDefaultFrame = 0;
  std::vector<CameraMode> mModes;
};

std::uint32_t BytesPerInterval(const EndpointModel& endpoint) {
  for (const Descriptor descriptor : SplitDescriptors(endpoint.extra)) {
    if (descriptor.size() >= 6 && descriptor[1] == kEndpointCompanion) {
      return U16(descriptor, 4);
    }
  }
  // USB 2.0, 9.6.6: bits 11 and 12 count further transactions.
  return (endpoint.wMaxPacketSize & 0x7FFU) * (((endpoint.wMaxPacketSize >> 11U) & 3U) + 1);
}

std::vector<CameraSetting> ReadSettings(const std::vector<AltSettingModel>& settings, std::uint8_t endpointAddress) {
  std::vector<CameraSetting> found;
  for (const AltSettingModel& setting : settings) {
    const auto endpoint = std::ranges::find(setting.endpoints, endpointAddress, &EndpointModel::bEndpointAddress);
    if (setting.bAlternateSetting != 0 && endpoint != setting.endpoints.end()) {
      found.push_back({setting.bAlternateSetting, BytesPerInterval(*endpoint)});
    }
  }
  return found;
}

}  // namespace

std::optional<CameraModel> ReadCameraModel(const ConfigModel& config) {
  for (const auto& settings : config.interfaces) {
    if (settings.empty() || !IsVideo(settings[0], kVideoStreaming)) {
      continue;
    }
    const auto descriptors = SplitDescriptors(settings[0].extra);
    const auto header =
        std::ranges::find_if(descriptors, [](Descriptor descriptor) { return Is(descriptor, kInputHeader, 13); });
    if (header == descriptors.end()) {
      continue;
    }
    CameraModel camera;
    camera.interfaceNumber = settings[0].bInterfaceNumber;
    camera.endpoint = (*header)[6];
    camera.controlLength = ControlLength(config);
    camera.settings = ReadSettings(settings, camera.endpoint);
    ModeReader modes;
    std::ranges::for_each(descriptors, [&modes](Descriptor descriptor) { modes.Read(descriptor); });
    camera.modes = modes.Take();
    return camera;
  }
  return std::nullopt;
}

}  // namespace vel
