#include "io/IVirtUsbIoFactory.h"

#include "base/VelLog.h"
#include "io/DummyUsbIo/DummyUsbCdcCH340.h"
#include "io/DummyUsbIo/DummyUsbCdcCH9102.h"
#include "io/DummyUsbIo/DummyUsbKeyboard.h"
#include "io/DummyUsbIo/DummyUsbPrinter.h"
#include "io/DummyUsbIo/DummyUsbRawIo.h"
#include "io/DummyUsbIo/DummyUsbWinusb.h"
#include "io/DummyUsbIo/DummyUvcIo.h"
#include "io/LibusbIo.h"

namespace vel {
namespace {

constexpr std::uint16_t kEmulatedVendor = 0xFF00;
constexpr std::uint16_t kCameraProduct = 0xFFFE;
constexpr std::uint8_t kCameraAddresses[] = {0x80, 0x81};

bool IsCamera(const VelDeviceBase& device) {
  return device.GetProductId() == kCameraProduct || device.GetDeviceAddress() == kCameraAddresses[0] ||
         device.GetDeviceAddress() == kCameraAddresses[1];
}

IUsbIo* CreateEmulated(VelDeviceBase& device) {
  const std::uint8_t bus = device.GetBusNumber();
  const std::uint8_t address = device.GetDeviceAddress();
  const std::uint16_t vid = device.GetVendorId();
  const std::uint16_t pid = device.GetProductId();
  if (IsCamera(device)) {
    VEL_DEBUG("UsbIo dummpuvcIo \n");
    return new DummyUvcIo(bus, address, vid, pid, device.GetArgs());
  }
  if (vid == kEmulatedVendor) {
    switch (pid) {
      case 0xFF01:
        return new DummyUsbKeyboard(bus, address, vid, pid);
      case 0xFF02:
        return new DummyUsbPrinter(bus, address, vid, pid);
      case 0xFF03:
        return new DummyUsbCdcCH340(bus, address, vid, pid);
      case 0xFF04:
        return new DummyUsbCdcCH9102(bus, address, vid, pid);
      case 0xFF05:
        return new DummyUsbWinusb(bus, address, vid, pid);
      default:
        break;
    }
  }
  return new DummyUsbRawIo(bus, address, vid, pid);
}

}  // namespace

IUsbIo* CreateUsbIo(std::uint32_t type, VelDeviceBase* device) {
  VEL_DEBUG("UsbIo type[%d], bus[0x%x], addr[0x%x], vid[0x%x], pid[0x%x], args[%s]", static_cast<int>(type),
            unsigned{device->GetBusNumber()}, unsigned{device->GetDeviceAddress()}, unsigned{device->GetVendorId()},
            unsigned{device->GetProductId()}, EscapeForLog(device->GetArgs()).c_str());
  switch (type) {
    case kIoTypeEmulated:
      return CreateEmulated(*device);
    case kIoTypeLibusb:
      return new LibusbIo(device);
    default:
      VEL_ERROR("Unknow USB IO type[%d]!", static_cast<int>(type));
      return nullptr;
  }
}

}  // namespace vel
