#ifndef VEL_VEL_DEVICE_BASE_H
#define VEL_VEL_DEVICE_BASE_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vel/vel_framework_export.h"

namespace vel {

class VelPacket;

struct VelTraceAttribute {
  const char* key;
  const char* value;
};

// The framework's handle of one redirected device: says which device it is and carries replies to the remote
// side. The order of the virtual operations is a binary interface.
//
// Outlives the driver and every session made for it. Its operations are called from the session's thread and
// from completion threads, several at once, with no lock of the module held unless said otherwise.
class VEL_FRAMEWORK_EXPORT VelDeviceBase {
 public:
  // USB addresses have 7 bits (USB 2.0, 9.4.6); those above mark emulated devices.
  static constexpr std::uint8_t kLastRealAddress = 0x7F;
  // For Send: as long as it takes.
  static constexpr std::uint32_t kWaitUnbounded = 0xFFFFFFFF;

  VelDeviceBase() = default;
  VelDeviceBase(const VelDeviceBase&) = delete;
  VelDeviceBase& operator=(const VelDeviceBase&) = delete;
  virtual ~VelDeviceBase();

  // Place of the device on the client machine.
  virtual std::uint8_t GetBusNumber() const = 0;
  virtual std::uint8_t GetDeviceAddress() const = 0;
  bool IsEmulated() const { return GetDeviceAddress() > kLastRealAddress; }
  // 1 while the device is redirected, 0 otherwise.
  virtual int IsRedirected() const = 0;

  virtual std::uint32_t GetDevId() const = 0;
  virtual std::uint32_t GetChannelId() const = 0;
  virtual std::uint16_t GetVendorId() const = 0;
  virtual std::uint16_t GetProductId() const = 0;
  // What the user gave along with the device, for example which camera feeds an emulated one. Never null;
  // valid as long as this object.
  virtual const char* GetArgs() const = 0;

  // The reqID for the reply to the bulk, interrupt or isochronous transfer `streamId`, about to be sent with
  // `replyCommand`. Asked once per such reply.
  virtual std::uint8_t TakeReplyReqId(std::uint16_t replyCommand, std::uint32_t streamId) = 0;

  // Sends a reply to the remote side, waiting up to `waitMs` milliseconds for room.
  // Returns 0, or a negative value when the packet was dropped. Must not close or delete the driver. Its
  // wait ends when the connection does; a session that stops waits for the replies that are under way.
  virtual int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) = 0;

  // Takes one trace event. The strings are valid during the call.
  virtual void Trace(std::uint64_t spanId, const char* event, const VelTraceAttribute* attributes,
                     std::size_t count) = 0;

  // Whether the remote side wants an answer for transfers that failed at the device or were cancelled. By
  // default it hears nothing of them.
  virtual bool AnswersFailedTransfers() const;

  // Whether replies to OUT transfers leave the request's data out. By default they carry it.
  virtual bool WantsLeanReplies() const;

  // Whether the headers that the device, a camera, puts before its payloads are as long as their own length byte says,
  // where that agrees with their flags. By default each is taken for 12 bytes. Asked when the device is initialised.
  virtual bool PayloadHeaderLengthCounts() const;

  // Whether a camera's pictures are to be as new as they can be when they are read: as long as no read waits, one
  // picture does, and those that come then are dropped before they are encoded. By default three wait. Asked when the
  // device is initialised.
  virtual bool WantsNewestPictures() const;
};

}  // namespace vel

#endif
