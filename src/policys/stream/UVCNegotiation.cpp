#include "policys/stream/UVCNegotiation.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "base/VelLog.h"
#include "uvc/UvcCodes.h"

namespace vel {
namespace {

constexpr std::uint16_t kCompQualityH265 = 0x8000;
// What both have; `data` may be empty, or of a later version of the class and longer.
void CopyCommon(UVCStreamCtrl& ctrl, std::span<const std::uint8_t> data) {
  std::ranges::copy(data.first(std::min(data.size(), sizeof ctrl)), reinterpret_cast<std::uint8_t*>(&ctrl));
}

std::uint8_t NumberOf(const libusb_interface& interface) {
  return interface.altsetting[0].bInterfaceNumber;
}

// By the SuperSpeed companions where there are any (USB 3.2, 9.6.7 and 9.6.8), else by wMaxPacketSize with the
// packets in a microframe (USB 2.0, table 9-13).
std::uint32_t BytesInInterval(const libusb_endpoint_descriptor& endpoint) {
  constexpr std::uint8_t kCompanion = 0x30;
  constexpr std::uint8_t kIsoCompanion = 0x31;
  constexpr std::size_t kBytesAt = 4;  // wBytesPerInterval, dwBytesPerInterval.
  std::uint32_t bytes = 0;
  std::span extra(endpoint.extra, endpoint.extra == nullptr ? 0U : static_cast<std::size_t>(endpoint.extra_length));
  while (extra.size() > kBytesAt + 1 && extra[0] > kBytesAt + 1 && extra[0] <= extra.size()) {
    const std::size_t width = extra[1] == kCompanion ? 2 : extra[1] == kIsoCompanion ? 4 : 0;
    if (width > 0 && extra[0] >= kBytesAt + width) {
      bytes = 0;
      std::memcpy(&bytes, &extra[kBytesAt], width);
    }
    extra = extra.subspan(extra[0]);
  }
  const std::uint32_t packet = endpoint.wMaxPacketSize;
  return bytes > 0 ? bytes : (packet & 0x7FFU) * (1 + ((packet >> 11U) & 3U));
}

}  // namespace

void UVCNegotiation::ParseDescriptors(const libusb_config_descriptor* config) {
  mFrame = nullptr;
  mCarried.clear();
  auto [interface, header] = UVCUtil::FindStreamingInterface(config);
  mInputHeader = std::move(header);
  const std::uint8_t position = UVCUtil::GetVSInterfaceFromConfig(config);
  if (interface == nullptr) {
    mVSInterface = position == UVCUtil::kNoInterface ? position : NumberOf(config->interface[position]);
    mVSEndpoint = static_cast<std::uint8_t>(UVCUtil::GetVSEndpointFromConfig(config));
    mOverBulk = UVCUtil::IsStreamOverBulk(config);
    return;
  }
  libusb_config_descriptor one = *config;  // Without the other streams.
  one.bNumInterfaces = 1;
  one.interface = interface;
  mVSInterface = NumberOf(*interface);
  mVSEndpoint = static_cast<std::uint8_t>(UVCUtil::GetVSEndpointFromConfig(&one));
  mOverBulk = UVCUtil::IsStreamOverBulk(&one);
  const std::span settings(interface->altsetting, static_cast<std::size_t>(interface->num_altsetting));
  for (const libusb_interface_descriptor& setting : settings) {
    const std::span endpoints(setting.endpoint, setting.endpoint == nullptr ? 0U : setting.bNumEndpoints);
    for (const libusb_endpoint_descriptor& endpoint : endpoints) {
      if (endpoint.bEndpointAddress == mVSEndpoint) {
        mCarried[setting.bAlternateSetting] = BytesInInterval(endpoint);
      }
    }
  }
}

void UVCNegotiation::ParseDescriptors(std::span<const std::uint8_t> block) {
  mFrame = nullptr;
  mInputHeader = UVCUtil::ParseUVCInputHeader(block);
  mVSEndpoint = mInputHeader == nullptr ? std::uint8_t{0xFF} : mInputHeader->bEndpointAddress;
}

bool UVCNegotiation::IsForStream(const UVCClassRequest& request) const {
  return mVSInterface != UVCUtil::kNoInterface && request.wIndex == mVSInterface;
}

void UVCNegotiation::SeeRequest(const UVCClassRequest& request) {
  VEL_DEBUG(
      "[UVC CTRL] [PRE] requestType[0x%x], bRequest[0x%x], wIndex[0x%x], "
      "wValue[0x%x], mUVCVSInterface[%x] >>>>> ",
      unsigned{request.bmRequestType}, unsigned{request.bRequest}, unsigned{request.wIndex}, unsigned{request.wValue},
      unsigned{mVSInterface});
  if (request.bmRequestType != kClassRequestOut || request.bRequest != kUvcSetCur || !IsForStream(request)) {
    return;
  }
  if (ControlSelector(request.wValue) == kVsCommitControl) {
    TakeStreamCtrl(request.data);
    UVCUtil::PrintStreamCtrl(mStreamCtrlInfo);
    SelectFrame();
  } else if (ControlSelector(request.wValue) == kVsProbeControl) {
    UVCStreamCtrl asked{};
    CopyCommon(asked, request.data);
    VEL_DEBUG("[UVC CTRL] [PROBE] SET_CUR formatIndex: %d, frameIndex:%d", int{asked.bFormatIndex},
              int{asked.bFrameIndex});
  }
}

void UVCNegotiation::SeeAnswer(const UVCClassRequest& request) {
  if (request.bmRequestType == kClassRequestIn && request.bRequest == kUvcGetCur && IsForStream(request)) {
    if (ControlSelector(request.wValue) == kVsProbeControl) {
      TakeStreamCtrl(request.data);
      SelectFrame();
      if (mFrame != nullptr) {
        VEL_DEBUG("[UVC CTRL] Current stream format type: %d, width: %d, height: %d\n", int{mFrame->bDescriptorSubtype},
                  int{mFrame->wWidth}, int{mFrame->wHeight});
        mStreamCtrlInfo.wCompQuality &= static_cast<std::uint16_t>(~kCompQualityH265);
        mH265 = false;
        const std::span known(reinterpret_cast<const std::uint8_t*>(&mStreamCtrlInfo), sizeof mStreamCtrlInfo);
        std::ranges::copy(known.first(std::min(known.size(), request.data.size())), request.data.begin());
      }
    } else if (ControlSelector(request.wValue) == kVsCommitControl) {
      TakeStreamCtrl(request.data);
      UVCUtil::PrintStreamCtrl(mStreamCtrlInfo);
    }
  }
  VEL_DEBUG(
      "[UVC CTRL] [POST] requestType[0x%x], bRequest[0x%x], wIndex[0x%x], "
      "wValue[0x%x], mUVCVSInterface[%x] <<<<<",
      unsigned{request.bmRequestType}, unsigned{request.bRequest}, unsigned{request.wIndex}, unsigned{request.wValue},
      unsigned{mVSInterface});
}

void UVCNegotiation::TakeStreamCtrl(std::span<const std::uint8_t> data) {
  CopyCommon(mStreamCtrlInfo, data);
}

void UVCNegotiation::SelectFrame() {
  mFrame = UVCUtil::GetFrameTypeDesc(mInputHeader.get(), mStreamCtrlInfo.bFormatIndex, mStreamCtrlInfo.bFrameIndex);
  if (mFrame == nullptr) {
    VEL_ERROR("No Frame type matched\n");
  }
}

const UVCFormatDesc* UVCNegotiation::Format() const {
  if (mFrame == nullptr) {
    return nullptr;
  }
  const std::span formats(mInputHeader->formats, mInputHeader->bNumFormats);
  const auto format = std::ranges::find_if(formats, [this](const UVCFormatDesc& each) {
    return mFrame >= each.frames && mFrame < each.frames + each.bNumFrameDescriptors;
  });
  return format == formats.end() ? nullptr : &*format;
}

bool UVCNegotiation::IsYuyv() const {
  const UVCFormatDesc* const format = Format();
  return format != nullptr && mFrame->bDescriptorSubtype == kVsFrameUncompressed &&
         std::memcmp(reinterpret_cast<const std::uint8_t*>(format) + kGuidFormatAt, kGuidYuy2.data(),
                     kGuidYuy2.size()) == 0;
}

std::uint32_t UVCNegotiation::PictureSize() const {
  const UVCFormatDesc* const format = Format();
  if (format == nullptr || mFrame->bDescriptorSubtype != kVsFrameUncompressed) {
    return 0;
  }
  const std::uint32_t bits = reinterpret_cast<const std::uint8_t*>(format)[kBitsPerPixelAt];
  const std::uint64_t size = std::uint64_t{mFrame->wWidth} * mFrame->wHeight * bits / 8;
  return size == mStreamCtrlInfo.dwMaxVideoFrameSize ? mStreamCtrlInfo.dwMaxVideoFrameSize : 0;
}

std::uint32_t UVCNegotiation::PayloadSize(std::uint32_t altSetting) const {
  const std::uint32_t agreed = mStreamCtrlInfo.dwMaxPayloadTransferSize;
  const auto carried = mCarried.find(altSetting);
  return mOverBulk || carried == mCarried.end() || carried->second == 0 ? agreed : std::min(agreed, carried->second);
}

}  // namespace vel
