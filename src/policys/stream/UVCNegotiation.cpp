#include "policys/stream/UVCNegotiation.h"

#include <algorithm>
#include <cstring>

#include "base/VelLog.h"
#include "uvc/UvcCodes.h"

namespace vel {
namespace {

constexpr std::uint16_t kCompQualityH265 = 0x8000;
// What both have; `data` may be empty, or of a later version of the class and longer.
void CopyCommon(UVCStreamCtrl& ctrl, std::span<const std::uint8_t> data) {
  std::ranges::copy(data.first(std::min(data.size(), sizeof ctrl)), reinterpret_cast<std::uint8_t*>(&ctrl));
}

}  // namespace

void UVCNegotiation::ParseDescriptors(const libusb_config_descriptor* config) {
  mFrame = nullptr;
  mInputHeader = UVCUtil::ParseUVCInputHeader(config);
  const std::uint8_t position = UVCUtil::GetVSInterfaceFromConfig(config);
  mVSInterface =
      position == UVCUtil::kNoInterface ? position : config->interface[position].altsetting[0].bInterfaceNumber;
  mVSEndpoint = static_cast<std::uint8_t>(UVCUtil::GetVSEndpointFromConfig(config));
  mOverBulk = UVCUtil::IsStreamOverBulk(config);
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

bool UVCNegotiation::IsYuyv() const {
  if (mFrame == nullptr || mFrame->bDescriptorSubtype != kVsFrameUncompressed) {
    return false;
  }
  const std::span formats(mInputHeader->formats, mInputHeader->bNumFormats);
  const auto format = std::ranges::find_if(formats, [this](const UVCFormatDesc& each) {
    return mFrame >= each.frames && mFrame < each.frames + each.bNumFrameDescriptors;
  });
  return format != formats.end() && std::memcmp(reinterpret_cast<const std::uint8_t*>(&*format) + kGuidFormatAt,
                                                kGuidYuy2.data(), kGuidYuy2.size()) == 0;
}

}  // namespace vel
