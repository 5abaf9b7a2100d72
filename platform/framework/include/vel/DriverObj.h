#ifndef VEL_DRIVER_OBJ_H
#define VEL_DRIVER_OBJ_H

#include <cstdint>

#include "vel/vel_framework_export.h"

namespace vel {

// Base of what a driver keeps per device. The order of the virtual operations is a binary interface. The
// answers here are the framework's defaults; their meaning is the framework's own.
class VEL_FRAMEWORK_EXPORT DriverObj {
 public:
  DriverObj() = default;
  DriverObj(const DriverObj&) = delete;
  DriverObj& operator=(const DriverObj&) = delete;
  virtual ~DriverObj();

  virtual std::uint16_t GetDriverType() const;
  virtual std::uint16_t GetFirstMatch() const;
  virtual std::uint16_t GetSecondMatch() const;
  virtual const char* GetTypeName() const;
  virtual int IsRedirected() const;
};

}  // namespace vel

#endif
