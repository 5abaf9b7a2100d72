#ifndef VIRTUSB_HOST_FAR_PAYLOAD_CUTTER_H
#define VIRTUSB_HOST_FAR_PAYLOAD_CUTTER_H

#include <cstdint>
#include <span>
#include <vector>

#include "far/UsbipWire.h"

namespace vel {

// Cuts pictures into the payloads of a USB Video Class stream (UVC 1.5, 2.4.3), each with a header of two bytes: there
// is no clock on this side whose times would mean something. One thread.
class PayloadCutter {
 public:
  // `picture` stays where it is until it is cut or another one begins. Not empty. One of which nothing was cut gives
  // way to it as if it had never begun.
  void Begin(std::span<const std::uint8_t> picture);
  bool HasRest() const { return !mRest.empty(); }
  bool IsUncut() const { return mUncut; }

  // Fills an isochronous URB's packets, one payload each; what is behind the picture's end stays empty. Valid until
  // the next call.
  std::span<const std::uint8_t> Cut(std::span<UrbPacket> packets);
  // Fills a bulk URB of `length` bytes with one payload, whose end the guest sees by its being short.
  std::span<const std::uint8_t> CutBulk(std::uint32_t length);

 private:
  std::uint32_t Payload(std::uint32_t room);  // Bytes of the payload that was put behind mBytes.

  std::span<const std::uint8_t> mRest;
  bool mUncut = false;
  bool mFrameId = false;
  std::vector<std::uint8_t> mBytes;
};

}  // namespace vel

#endif
