#include <memory>

#include "cmd/Commands.h"
#include "cmd/DescriptorText.h"
#include "cmd/Devices.h"
#include "cmd/Output.h"
#include "remote/ModuleChannel.h"
#include "remote/RemoteDevice.h"

namespace vel {

int RunDescribe(const CommonOptions& common) {
  const DeviceIdentity identity = FindDevice(common.device, common.cameraSource);
  RemoteDevice remote(std::make_unique<ModuleChannel>(ModuleLibrary::Load(common.modulePath), identity));
  const Enumeration found = Enumerate(remote);
  remote.Status(Command::kCloseUsbDev);
  Print(common.json ? DescriptorJson(found).dump(2) + "\n" : DescriptorText(found));
  return 0;
}

}  // namespace vel
