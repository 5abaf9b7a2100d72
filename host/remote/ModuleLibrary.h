#ifndef VIRTUSB_HOST_REMOTE_MODULE_LIBRARY_H
#define VIRTUSB_HOST_REMOTE_MODULE_LIBRARY_H

#include <memory>
#include <string>

#include "vel/VelDrvModule.h"

namespace vel {

// A loaded driver module. Unloaded when the last reference goes: drivers and sessions have to be gone by then.
class ModuleLibrary {
 public:
  // Throws std::runtime_error, with a text that says what to do, when there is no such file, it cannot be loaded,
  // or it is not a driver module.
  static std::shared_ptr<ModuleLibrary> Load(const std::string& path);

  // Where the module is when nobody says: where it is installed, seen from this program, and nowhere else, since another
  // folder may be another one's.
  static std::string DefaultPath();

  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;
  ~ModuleLibrary();

  const VelDrvModule& Descriptor() const { return *mDescriptor; }

 private:
  ModuleLibrary(void* handle, const VelDrvModule* descriptor) : mHandle(handle), mDescriptor(descriptor) {}

  void* const mHandle;
  const VelDrvModule* const mDescriptor;
};

}  // namespace vel

#endif
