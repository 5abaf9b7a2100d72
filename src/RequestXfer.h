// What a bulk, interrupt or isochronous request becomes on its way: one record with its reply's context, and its data
// where it is wanted in the end. IN data lies in the reply's packet from the start, OUT data stays in the request's.
#ifndef VEL_REQUEST_XFER_H
#define VEL_REQUEST_XFER_H

#include <cstdint>
#include <memory>

#include "io/UsbIoXferInfo.h"
#include "protocol/Requests.h"
#include "protocol/VelPacket.h"
#include "vel/VelDeviceBase.h"

namespace vel {

class VirtUDevice;

// What the give-back of a transfer needs of the request. A malloc block that the record carries as `reqBuf`, or part of
// the record's own.
struct TransferContext {
  VelDeviceBase* deviceBase;
  VirtUDevice* device;
  std::uint8_t reqId;
  std::uint32_t devId;
  std::uint32_t streamId;
  std::uint32_t reserved;   // Bytes taken from the device's TransferBudget; 0: it holds no place there.
  std::uint32_t dataGiven;  // Bytes of the data block that the request brought; what lies behind was never written.
  _UsbIoXferInfo* record;   // The record that this context is part of, made with it; null: a block of its own.
};

// What a reply has room for beyond its data.
inline constexpr std::uint32_t kReplyRoom = 1024;

// A record with the request's data, and room for a TransferContext at `reqBuf`, which the caller makes. `inPlace`: the
// data may lie within a packet (IUsbIo::LeavesDataInPlace); `request` is taken over then, but for one whose
// `transfer.data` points to what was copied out of it. Null without memory.
XferPtr MakeRequestXfer(std::unique_ptr<VelPacket>& request, const TransferRequest& transfer, bool inPlace);

// The packet for a reply of `capacity` with the record's data, in which that lies already behind the reply's fields: to
// be appended in place. Null when it does not, or when it would hold much more memory than it carries.
std::unique_ptr<VelPacket> TakeReplyPacket(_UsbIoXferInfo& info, std::uint32_t capacity);

}  // namespace vel

#endif
