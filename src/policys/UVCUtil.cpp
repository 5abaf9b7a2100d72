#include "policys/UVCUtil.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <utility>

#include "base/Clock.h"
#include "base/VelLog.h"
#include "uvc/UVCBlockFilter.h"
#include "uvc/UVCBlockLayout.h"
#include "uvc/UVCPayloadHeader.h"
#include "uvc/UvcCodes.h"

namespace vel {
namespace {

constexpr std::size_t kInputHeaderSize = 21;  // What an endpoint's extra bytes need to be one.
constexpr std::size_t kEndpointAddressAt = offsetof(UVCInputHeader, bEndpointAddress);

struct RequestName {
  std::uint8_t request;
  const char* name;
};
constexpr std::array kRequestNames = {
    RequestName{kUvcRequestUndefined, "[UVC_RC_UNDEFINED]"},
    RequestName{kUvcSetCur, "[UVC_SET_CUR]"},
    RequestName{kUvcGetCur, "[UVC_GET_CUR]"},
    RequestName{kUvcGetMin, "[UVC_GET_MIN]"},
    RequestName{kUvcGetMax, "[UVC_GET_MAX]"},
    RequestName{kUvcGetRes, "[UVC_GET_RES]"},
    RequestName{kUvcGetLen, "[UVC_GET_LEN]"},
    RequestName{kUvcGetInfo, "[UVC_GET_INFO]"},
    RequestName{kUvcGetDef, "[UVC_GET_DEF]"},
};
constexpr std::uint8_t kMaxCtrlSelector = 20;

std::span<const libusb_interface> Interfaces(const libusb_config_descriptor* config) {
  if (config == nullptr || config->interface == nullptr) {
    return {};
  }
  return {config->interface, config->bNumInterfaces};
}

// The first alternate setting of a VS interface; null for any other interface.
const libusb_interface_descriptor* VsSetting(const libusb_interface& interface) {
  if (interface.altsetting == nullptr || interface.num_altsetting <= 0) {
    return nullptr;
  }
  const libusb_interface_descriptor& first = interface.altsetting[0];
  return IsVideoStreaming(first) ? &first : nullptr;
}

template <class Desc>
std::span<const std::uint8_t> Extra(const Desc& desc) {
  return {desc.extra, desc.extra == nullptr ? 0U : static_cast<std::size_t>(std::max(desc.extra_length, 0))};
}

const libusb_endpoint_descriptor* FirstEndpoint(const libusb_interface_descriptor& setting) {
  return setting.bNumEndpoints > 0 ? setting.endpoint : nullptr;
}

// The block of a VS setting; empty, with an Error line, when it has none.
std::span<const std::uint8_t> VsBlock(const libusb_interface_descriptor& setting, int position) {
  if (const auto extra = Extra(setting); !extra.empty()) {
    return extra;
  }
  const libusb_endpoint_descriptor* const endpoint = FirstEndpoint(setting);
  if (endpoint == nullptr) {
    VEL_ERROR("Get InputHeader fail in if[%d] extra data\n", position);
    return {};
  }
  const std::span<const std::uint8_t> extra = Extra(*endpoint);
  if (extra.size() < kInputHeaderSize) {
    VEL_ERROR("Get InputHeader fail in ep[0x%x] extra data\n", unsigned{endpoint->bEndpointAddress});
    return {};
  }
  return extra;
}

}  // namespace

std::uint8_t UVCUtil::GetVSInterfaceFromConfig(const libusb_config_descriptor* config) {
  std::uint8_t position = 0;
  for (const libusb_interface& interface : Interfaces(config)) {
    if (VsSetting(interface) != nullptr) {
      VEL_DEBUG("Find UVC video stream interface: %d", int{position});
      return position;
    }
    ++position;
  }
  return kNoInterface;
}

std::uint32_t UVCUtil::GetVSEndpointFromConfig(const libusb_config_descriptor* config) {
  std::uint32_t address = kNoEndpoint;
  for (const libusb_interface& interface : Interfaces(config)) {
    const libusb_interface_descriptor* const setting = VsSetting(interface);
    if (setting == nullptr) {
      continue;
    }
    std::span<const std::uint8_t> header = Extra(*setting);
    if (const auto* endpoint = FirstEndpoint(*setting); header.empty() && endpoint != nullptr) {
      header = Extra(*endpoint);
    }
    if (header.size() > kEndpointAddressAt) {
      address = header[kEndpointAddressAt];
      VEL_DEBUG("Find UVC video stream endpoint: %d", static_cast<int>(address));
    }
  }
  return address;
}

UVCUtil::StreamingInterface UVCUtil::FindStreamingInterface(const libusb_config_descriptor* config) {
  int position = 0;
  for (const libusb_interface& interface : Interfaces(config)) {
    if (const auto* setting = VsSetting(interface); setting != nullptr) {
      const std::span<const std::uint8_t> block = VsBlock(*setting, position);
      if (UVCInputHeaderPtr header = block.empty() ? nullptr : ParseUVCInputHeader(block)) {
        return {&interface, std::move(header)};
      }
    }
    ++position;
  }
  return {};
}

UVCInputHeaderPtr UVCUtil::ParseUVCInputHeader(const libusb_config_descriptor* config) {
  return FindStreamingInterface(config).header;
}

UVCInputHeaderPtr UVCUtil::ParseUVCInputHeader(std::span<const std::uint8_t> block) {
  return MakeInputHeader(ReadUVCBlock(block));
}

UVCInputHeaderPtr UVCUtil::ParseUVCInputHeader(const std::uint8_t* block) {
  return ParseUVCInputHeader(std::span(block, TrustedUVCBlockLength(block)));
}

void UVCUtil::FreeInputHeader(UVCInputHeader* header) {
  UVCInputHeaderPtr{header}.reset();
}

const UVCFrameDesc* UVCUtil::GetFrameTypeDesc(const UVCInputHeader* header, std::uint8_t formatIndex,
                                              std::uint8_t frameIndex) {
  if (header == nullptr) {
    VEL_ERROR("InputHeader is null\n");
    return nullptr;
  }
  const std::span<const UVCFormatDesc> formats(header->formats, header->bNumFormats);
  if (formatIndex > formats.size() || formats.empty()) {
    VEL_ERROR("Invalid formatIndex[%d]\n", int{formatIndex});
    return nullptr;
  }
  const UVCFormatDesc* selected = &formats.front();
  for (const UVCFormatDesc& format : formats) {
    VEL_DEBUG("Format subtype = %d, index = %d, formatIndex = %d", int{format.bDescriptorSubtype},
              int{format.bFormatIndex}, int{formatIndex});
    selected = &format;
    if (format.bFormatIndex == formatIndex) {
      break;
    }
  }
  if (frameIndex == 0 || frameIndex > selected->bNumFrameDescriptors) {
    VEL_ERROR("Invalid frameIndex [%d], format index[%d]\n", int{frameIndex}, int{formatIndex});
    return nullptr;
  }
  return selected->frames + (frameIndex - 1);
}

bool UVCUtil::IsStreamOverBulk(const libusb_config_descriptor* config) {
  const std::span<const libusb_interface> interfaces = Interfaces(config);
  const bool iso = std::any_of(interfaces.begin(), interfaces.end(), [](const auto& interface) {
    return VsSetting(interface) != nullptr && interface.num_altsetting > 1;
  });
  if (iso) {
    VEL_DEBUG("UVC stream is over iso xfer");
  } else {
    VEL_DEBUG("UVC stream is over bulk xfer");
  }
  return !iso;
}

std::uint32_t UVCUtil::FilterFrameDescriptors(std::span<std::uint8_t> block, std::uint32_t maxHeight) {
  return FilterUVCBlock(block, maxHeight);
}

std::uint32_t UVCUtil::FilterFrameDescriptors(std::uint8_t* block, std::uint32_t maxHeight) {
  return FilterFrameDescriptors(std::span(block, TrustedUVCBlockLength(block)), maxHeight);
}

void UVCUtil::PrintStreamCtrl(const UVCStreamCtrl& ctrl) {
  VEL_DEBUG("[UVC CTRL] ");
  VEL_DEBUG("[UVC CTRL] bmHint: %04x\n", unsigned{ctrl.bmHint});
  VEL_DEBUG("[UVC CTRL] bFormatIndex: %d\n", int{ctrl.bFormatIndex});
  VEL_DEBUG("[UVC CTRL] bFrameIndex: %d\n", int{ctrl.bFrameIndex});
  VEL_DEBUG("[UVC CTRL] dwFrameInterval: %u\n", ctrl.dwFrameInterval);
  VEL_DEBUG("[UVC CTRL] wKeyFrameRate: %d\n", int{ctrl.wKeyFrameRate});
  VEL_DEBUG("[UVC CTRL] wPFrameRate: %d\n", int{ctrl.wPFrameRate});
  VEL_DEBUG("[UVC CTRL] wCompQuality: %d\n", int{ctrl.wCompQuality});
  VEL_DEBUG("[UVC CTRL] wCompWindowSize: %d\n", int{ctrl.wCompWindowSize});
  VEL_DEBUG("[UVC CTRL] wDelay: %d\n", int{ctrl.wDelay});
  VEL_DEBUG("[UVC CTRL] dwMaxVideoFrameSize: %u\n", ctrl.dwMaxVideoFrameSize);
  VEL_DEBUG("[UVC CTRL] dwMaxPayloadTransferSize: %u\n", ctrl.dwMaxPayloadTransferSize);
  VEL_DEBUG("[UVC CTRL] bInterfaceNumber: %d\n", int{ctrl.bInterfaceNumber});
}

void UVCUtil::DumpRequest(std::uint8_t bRequest) {
  const auto* const found = std::find_if(kRequestNames.begin(), kRequestNames.end(),
                                         [bRequest](const RequestName& entry) { return entry.request == bRequest; });
  VEL_ERROR("%s", found == kRequestNames.end() ? "[Invalid reqeust]" : found->name);
}

void UVCUtil::DumpCtrlSelector(std::uint16_t wValue) {
  if (ControlSelector(wValue) > kMaxCtrlSelector) {
    VEL_ERROR("[Invalid reqeust]");
  }
}

void UVCUtil::ParseUVCFrameHeader(const std::uint8_t* packet, int length) {
  vel::ParseUVCFrameHeader(packet, length);
}

void UVCUtil::SavePicture(const std::uint8_t* data, std::uint32_t length, const char* path) {
  struct Close {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  const std::unique_ptr<std::FILE, Close> file(std::fopen(path, "wb"));
  if (file == nullptr) {
    VEL_ERROR("open %s, fail\n", path);
  } else if (data != nullptr && std::fwrite(data, 1, length, file.get()) != length) {
    VEL_ERROR("write %s, fail\n", path);
  }
}

std::uint64_t UVCUtil::GetTimeMs() {
  return static_cast<std::uint64_t>(WallClockMs());
}

}  // namespace vel
