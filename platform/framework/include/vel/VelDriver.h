#ifndef VEL_VEL_DRIVER_H
#define VEL_VEL_DRIVER_H

#include <cstdint>
#include <memory>

#include "vel/DriverObj.h"
#include "vel/vel_framework_export.h"

namespace vel {

class VelPacket;

// What the framework calls on the driver of one redirected device. The order of the virtual operations is a
// binary interface. The framework calls from one thread at a time, and never from within VelDeviceBase::Send.
class VEL_FRAMEWORK_EXPORT VelDriver {
 public:
  VelDriver() = default;
  VelDriver(const VelDriver&) = delete;
  VelDriver& operator=(const VelDriver&) = delete;
  virtual ~VelDriver();

  // A request packet for the device. Returns 0; the answer comes through VelDeviceBase::Send.
  virtual int onEvent(std::unique_ptr<VelPacket> packet) = 0;
  virtual int GetState();
  virtual int BindObject(std::shared_ptr<DriverObj> object);
  virtual int Activate() = 0;
  // Answers -1 and 5382 when the code is not supported.
  virtual int Query(std::int16_t code, std::uint16_t* out);
  // Gives the device back. Packets that come later are dropped.
  virtual int Close(std::uint8_t reason) = 0;
  virtual const char* GetTypeName() const = 0;

  // What Query stores for a code that is not supported (the framework's number).
  static constexpr std::uint16_t kQueryNotSupported = 5382;
};

// A driver that takes packets as they are.
class VEL_FRAMEWORK_EXPORT VelRawDriver : public VelDriver {
 public:
  ~VelRawDriver() override;

  const char* GetTypeName() const override;
  // The object behind this driver; empty when there is none.
  virtual std::shared_ptr<DriverObj> GetDriverObj();
};

}  // namespace vel

#endif
