#ifndef VEL_POLICYS_STREAM_UVC_NEGOTIATION_H
#define VEL_POLICYS_STREAM_UVC_NEGOTIATION_H

#include <cstdint>
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

 private:
  bool IsForStream(const UVCClassRequest& request) const;
  void TakeStreamCtrl(std::span<const std::uint8_t> data);
  void SelectFrame();

  UVCInputHeaderPtr mInputHeader;
  std::uint8_t mVSInterface = UVCUtil::kNoInterface;
  std::uint8_t mVSEndpoint = 0xFF;
  bool mOverBulk = false;
  bool mH265 = false;
  UVCStreamCtrl mStreamCtrlInfo{};
  const UVCFrameDesc* mFrame = nullptr;  // In mInputHeader.
};

}  // namespace vel

#endif
