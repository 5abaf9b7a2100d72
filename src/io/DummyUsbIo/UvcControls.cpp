#include "io/DummyUsbIo/UvcControls.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <utility>

#include "base/VelLog.h"
#include "policys/UVCUtil.h"
#include "uvc/UvcCodes.h"

namespace vel {
namespace {

constexpr std::uint16_t kStreamingInterface = 1;  // As the whole of wIndex.
constexpr std::uint8_t kCameraTerminal = 1;       // Entities, in the high byte of wIndex.
constexpr std::uint8_t kProcessingUnit = 2;

constexpr UVCStreamCtrl kInitial{
    .bmHint = 0,
    .bFormatIndex = 1,
    .bFrameIndex = 1,
    .dwFrameInterval = 1000000,
    .wKeyFrameRate = 0,
    .wPFrameRate = 0,
    .wCompQuality = 0,
    .wCompWindowSize = 30,
    .wDelay = 0,
    .dwMaxVideoFrameSize = 614400,
    .dwMaxPayloadTransferSize = 3060,
    .dwClockFrequency = 0,
    .bmFramingInfo = 0,
    .bPreferedVersion = 0,
    .bMinVersion = 0,
    .bMaxVersion = 0,
    .bInterfaceNumber = 0,
};

constexpr std::uint8_t HighByte(std::uint16_t value) {
  return static_cast<std::uint8_t>(value >> 8U);
}

}  // namespace

void UvcControls::InitCtrlInfo(const libusb_config_descriptor* config) {
  UVCInputHeaderPtr streamingInfo = UVCUtil::ParseUVCInputHeader(config);
  const MutexLock lock(mMutex);
  mStreamingInfo = std::move(streamingInfo);
  mStreamCtrl = kInitial;
  mCurrentFrame.reset();
  SelectFrame();
}

int UvcControls::UvcParseCtrlCmd(std::uint8_t bmRequestType, std::uint8_t /*bRequest*/, std::uint16_t wValue,
                                 std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength,
                                 std::uint32_t /*timeout*/) {
  if (wValue == 0) {
    return wLength;
  }
  if (bmRequestType == kClassRequestIn) {
    return Get(wValue, wIndex, data, wLength);
  }
  if (bmRequestType == kClassRequestOut && wIndex == kStreamingInterface) {
    VEL_DEBUG("Interface, CS[0x%x], set", unsigned{HighByte(wValue)});
    Set(HighByte(wValue), data, wLength);
  }
  return wLength;
}

// GET_CUR, GET_MIN, GET_MAX and the others are not told apart. What terminals and units answer is left as it is.
int UvcControls::Get(std::uint16_t wValue, std::uint16_t wIndex, std::uint8_t* data, std::uint16_t wLength) {
  const std::uint8_t selector = HighByte(wValue);
  if (HighByte(wIndex) == kCameraTerminal) {
    VEL_DEBUG("Get IT, CS[0x%x]", unsigned{wValue});
  } else if (HighByte(wIndex) == kProcessingUnit) {
    VEL_DEBUG("Get PU, CS[0x%x]", unsigned{wValue});
  } else if (wIndex == kStreamingInterface && (selector == kVsProbeControl || selector == kVsCommitControl)) {
    const std::size_t size = std::min<std::size_t>(wLength, sizeof(UVCStreamCtrl));
    const MutexLock lock(mMutex);
    if (data != nullptr) {
      std::memcpy(data, &mStreamCtrl, size);
    }
    VEL_DEBUG("Get Interface, CS[0x%x], get param format index[%d], frame index[%d], maxVideoSize[%d]",
              unsigned{selector}, int{mStreamCtrl.bFormatIndex}, int{mStreamCtrl.bFrameIndex},
              static_cast<int>(mStreamCtrl.dwMaxVideoFrameSize));
    return static_cast<int>(size);
  }
  return wLength;
}

void UvcControls::Set(std::uint8_t selector, const std::uint8_t* data, std::uint16_t wLength) {
  if (selector != kVsProbeControl && selector != kVsCommitControl) {
    return;
  }
  const MutexLock lock(mMutex);
  if (data != nullptr) {
    std::memcpy(&mStreamCtrl, data, std::min<std::size_t>(wLength, sizeof(UVCStreamCtrl)));
    mStreamCtrl.dwMaxPayloadTransferSize = kInitial.dwMaxPayloadTransferSize;  // A guest picks its setting by it.
  }
  if (selector == kVsCommitControl) {
    VEL_DEBUG("Interface, CS[0x%x], [COMMIT] need set param[%d][%d], maxVideoSize[%d]", unsigned{selector},
              int{mStreamCtrl.bFormatIndex}, int{mStreamCtrl.bFrameIndex},
              static_cast<int>(mStreamCtrl.dwMaxVideoFrameSize));
  } else {
    VEL_DEBUG("Interface, CS[0x%x], [PROBE] need set param[%d][%d], maxVideoSize[%d]", unsigned{selector},
              int{mStreamCtrl.bFormatIndex}, int{mStreamCtrl.bFrameIndex},
              static_cast<int>(mStreamCtrl.dwMaxVideoFrameSize));
  }
  SelectFrame();
}

// A frame that there is not leaves the current one, whose size the control then says: whoever sizes his blocks by it
// gets blocks for the pictures that will come.
void UvcControls::SelectFrame() {
  const UVCFrameDesc* frame =
      UVCUtil::GetFrameTypeDesc(mStreamingInfo.get(), mStreamCtrl.bFormatIndex, mStreamCtrl.bFrameIndex);
  if (frame != nullptr) {
    mCurrentFrame = *frame;
  }
  if (mCurrentFrame) {
    const std::uint64_t size = std::uint64_t{2} * mCurrentFrame->wWidth * mCurrentFrame->wHeight;
    mStreamCtrl.dwMaxVideoFrameSize =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(size, std::numeric_limits<std::uint32_t>::max()));
  }
}

std::optional<UVCFrameDesc> UvcControls::CurrentFrame() const {
  const MutexLock lock(mMutex);
  return mCurrentFrame;
}

}  // namespace vel
