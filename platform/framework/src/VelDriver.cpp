#include "vel/VelDriver.h"

namespace vel {

DriverObj::~DriverObj() = default;
std::uint16_t DriverObj::GetDriverType() const {
  return 0;
}
std::uint16_t DriverObj::GetFirstMatch() const {
  return 0;
}
std::uint16_t DriverObj::GetSecondMatch() const {
  return 0;
}
const char* DriverObj::GetTypeName() const {
  return "default";
}
int DriverObj::IsRedirected() const {
  return 0;
}

VelDriver::~VelDriver() = default;
int VelDriver::GetState() {
  return 0;
}

int VelDriver::BindObject(std::shared_ptr<DriverObj> object) {
  object.reset();  // Taken over by value, and not kept.
  return 0;
}

int VelDriver::Query(std::int16_t /*code*/, std::uint16_t* out) {
  if (out != nullptr) {
    *out = kQueryNotSupported;
  }
  return -1;
}

VelRawDriver::~VelRawDriver() = default;
const char* VelRawDriver::GetTypeName() const {
  return "RawDrv";
}
std::shared_ptr<DriverObj> VelRawDriver::GetDriverObj() {
  return nullptr;
}

}  // namespace vel
