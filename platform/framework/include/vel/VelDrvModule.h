#ifndef VEL_VEL_DRV_MODULE_H
#define VEL_VEL_DRV_MODULE_H

#include <cstddef>
#include <cstdint>

namespace vel {

class VelDeviceBase;
class VelDriver;

// What a driver module exports under the name VEL_DRV_MODULE. Read by the framework as bytes.
struct VelDrvModule {
  VelDriver* (*open)(VelDeviceBase* deviceBase);  // A new driver, owned by the caller, or null.
  void* reserved8;
  std::uint16_t driverType;   // As DriverObj::GetDriverType of the module's sessions.
  std::uint16_t firstMatch;   // As DriverObj::GetFirstMatch.
  std::uint16_t secondMatch;  // As DriverObj::GetSecondMatch.
  std::uint16_t reserved22;
  const char* name;
  std::uint32_t version;  // 1
  std::uint32_t reserved36;
  std::uint64_t reserved40;
};

static_assert(sizeof(void*) != 8 || sizeof(VelDrvModule) == 48);
static_assert(sizeof(void*) != 8 || offsetof(VelDrvModule, driverType) == 16);
static_assert(sizeof(void*) != 8 || offsetof(VelDrvModule, name) == 24);
static_assert(sizeof(void*) != 8 || offsetof(VelDrvModule, version) == 32);
static_assert(sizeof(void*) != 8 || offsetof(VelDrvModule, reserved40) == 40);

inline constexpr char kDrvModuleSymbol[] = "VEL_DRV_MODULE";

}  // namespace vel

#endif
