#ifndef VEL_POLICYS_STREAM_UVC_NEGOTIATION_H
#define VEL_POLICYS_STREAM_UVC_NEGOTIATION_H

#include <cstdint>
#include <map>
#include <span>

#include <libusb-1.0/libusb.h>

#include "policys/UVCUtil.h"
#include "uvc/UVCDescriptors.h"
#include "uvc/UVCStreamCtrl.h"

namespace vel {

// A class request to a video-streaming interface, with its data.
struct UVCClassRequest {
  std::uint8_t bmRequestType;
  std::uint8_t bRequest;
  std::uint16_t wValue;
  std::uint16_t wIndex;
  std::span<std::uint8_t> data;
};

// What is known of a camera's stream: its descriptors, and the format, frame and sizes that the guest's driver and the
// camera have agreed on, read from the requests between them.
//
// One thread at a time.
class UVCNegotiation {
 public:
  // The camera's configuration, or a raw block of its streaming interface, which says nothing of bulk or isochronous.
  // Of several streaming interfaces the first one counts whose descriptors can be read.
  void ParseDescriptors(const libusb_config_descriptor* config);
  void ParseDescriptors(std::span<const std::uint8_t> block);

  // bInterfaceNumber of the streaming interface; UVCUtil::kNoInterface when there is none.
  std::uint8_t Interface() const { return mVSInterface; }
  // 0xFF when there is none.
  std::uint8_t Endpoint() const { return mVSEndpoint; }
  bool IsOverBulk() const { return mOverBulk; }

  // A request on its way to the device: a commit sets the stream.
  void SeeRequest(const UVCClassRequest& request);
  // The device's answer: a probe's sets the stream, too, and is sent on without the bit of wCompQuality by which a
  // camera could announce H.265.
  void SeeAnswer(const UVCClassRequest& request);

  const UVCStreamCtrl& StreamCtrl() const { return mStreamCtrlInfo; }
  // The frame that was agreed on, or null.
  const UVCFrameDesc* Frame() const { return mFrame; }
  // Whether that frame's format is YUYV.
  bool IsYuyv() const;
  bool IsH265() const { return mH265; }
  // How many bytes each picture has; 0 where that is not the same for all, or not what was agreed on.
  std::uint32_t PictureSize() const;
  // What the camera sends at most in a payload, header included: what was agreed on and, of an isochronous endpoint,
  // not more than this alternate setting carries.
  std::uint32_t PayloadSize(std::uint32_t altSetting) const;

 private:
  bool IsForStream(const UVCClassRequest& request) const;
  void TakeStreamCtrl(std::span<const std::uint8_t> data);
  void SelectFrame();
  // That of the frame that was agreed on, or null.
  const UVCFormatDesc* Format() const;

  UVCInputHeaderPtr mInputHeader;
  std::uint8_t mVSInterface = UVCUtil::kNoInterface;
  std::uint8_t mVSEndpoint = 0xFF;
  bool mOverBulk = false;
  // Bytes that the endpoint carries in an interval, of each alternate setting that has it.
  std::map<std::uint32_t, std::uint32_t> mCarried;
  bool mH265 = false;
  UVCStreamCtrl mStreamCtrlInfo{};
  const UVCFrameDesc* mFrame = nullptr;  // In mInputHeader.
};

}  // namespace vel

#endif
