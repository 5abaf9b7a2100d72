#ifndef VIRTUSB_HOST_FAR_URB_GUEST_H
#define VIRTUSB_HOST_FAR_URB_GUEST_H

#include <cstdint>

#include "far/UsbipWire.h"

namespace vel {

// Where a device's answers go: a guest's kernel. Called on any thread, with no lock held; what is passed is valid
// during the call.
class UrbGuest {
 public:
  UrbGuest() = default;
  UrbGuest(const UrbGuest&) = delete;
  UrbGuest& operator=(const UrbGuest&) = delete;
  virtual ~UrbGuest() = default;

  virtual void OnUrbDone(const UrbReply& reply) = 0;
  virtual void OnUnlinked(std::uint32_t seqnum, std::int32_t status) = 0;
  // The device is gone. Every URB was answered before.
  virtual void OnGone() = 0;
};

}  // namespace vel

#endif
