#include "policys/stream/UVCNegotiation.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/VelLog.h"

namespace vel {
namespace {

// Class requests and selectors of a video-streaming interface (UVC 1.1, tables ).
constexpr std::uint8_t kSetToInterface = 0x21;
constexpr std::uint8_t kGetFromInterface = 0xA1;
constexpr std::uint8_t kSetCur = 0x01;
constexpr std::uint8_t kGetCur = 0x81;
constexpr std::uint8_t kProbe = 1;
constexpr std::uint8_t kCommit = 2;

constexpr std::uint8_t kVsFrameUncompressed = 5;  // UVC 1.1, table A-6
constexpr std::uint16_t kCompQualityH265 = 0x8000;
constexpr std::size_t kFormatGuid = 5;  // Its place in the format descriptor (uncompressed payload 1.1, table 3-1).
constexpr std::array<std::uint8_t, 16> kYuy2 = {0x59, 0x55, 0x59, 0x32, 0x00, 0x00, 0x10, 0x00,
                                                0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

constexpr std::uint8_t Selector(std::uint16_t wValue) {
  return static_cast<std::uint8_t>(wValue >> 8U);
}

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
  if (request.bmRequestType != kSetToInterface || request.bRequest != kSetCur || !IsForStream(request)) {
    return;
  }
  if (Selector(request.wValue) == kCommit) {
    TakeStreamCtrl(request.data);
    UVCUtil::PrintStreamCtrl(mStreamCtrlInfo);
    SelectFrame();
  } else if (Selector(request.wValue) == kProbe) {
    UVCStreamCtrl asked{};
    CopyCommon(asked, request.data);
    VEL_DEBUG("[UVC CTRL] [PROBE] SET_CUR formatIndex: %d, frameIndex:%d", int{asked.bFormatIndex},
              int{asked.bFrameIndex});
  }
}

void UVCNegotiation::SeeAnswer(const UVCClassRequest& request) {
  if (request.bmRequestType == kGetFromInterface && request.bRequest == kGetCur && IsForStream(request)) {
    if (Selector(request.wValue) == kProbe) {
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
    } else if (Selector(request.wValue) == kCommit) {
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

bool UVCNegotiation::IsUncompressed() const {
  return mFrame != nullptr && mFrame->bDescriptorSubtype == kVsFrameUncompressed;
}

bool UVCNegotiation::IsYuyv() const {
  if (!IsUncompressed()) {
    return false;
  }
  const std::span formats(mInputHeader->formats, mInputHeader->bNumFormats);
  const auto format = std::ranges::find_if(formats, [this](const UVCFormatDesc& each) {
    return mFrame >= each.frames && mFrame < each.frames + each.bNumFrameDescriptors;
  });
  return format != formats.end() &&
         std::memcmp(reinterpret_cast<const std::uint8_t*>(&*format) + kFormatGuid, kYuy2.data(), kYuy2.size()) == 0;
}

}  // namespace vel
