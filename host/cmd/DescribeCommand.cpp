#include <cstdio>

#include "cmd/Commands.h"
#include "cmd/DescriptorText.h"
#include "cmd/Devices.h"
#include "remote/ModuleChannel.h"
#include "remote/RemoteDevice.h"

namespace vel {

int RunDescribe(const CommonOptions& common) {
  const DeviceIdentity identity = FindDevice(common.device);
  RemoteDevice remote(std::make_unique<ModuleChannel>(ModuleLibrary::Load(common.modulePath), identity));
  const Enumeration found = Enumerate(remote);
  remote.Status(Command::kCloseUsbDev);
  if (common.json) {
    std::puts(DescriptorJson(found).dump(2).c_str());
  } else {
    std::fputs(DescriptorText(found).c_str(), stdout);
  }
  return 0;
}

}  // namespace vel
