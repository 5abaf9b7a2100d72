#ifndef VEL_IO_DUMMY_USB_IO_CONFIG_DESC_TREE_H
#define VEL_IO_DUMMY_USB_IO_CONFIG_DESC_TREE_H

#include <cstdint>
#include <span>
#include <vector>

#include <libusb-1.0/libusb.h>

#include "io/DummyUsbIo/DummyUsbUtils.h"

namespace vel {

// A configuration in libusb's layout, built from the bytes of a configuration descriptor and owned here.
//
// Class-specific descriptors become the extra bytes of the descriptor that they follow. Reading stops at the last whole
// descriptor. The bytes are copied.
class ConfigDescTree : private DummyUsbUtils {
 public:
  explicit ConfigDescTree(std::span<const std::uint8_t> bytes);
  ConfigDescTree(const ConfigDescTree&) = delete;
  ConfigDescTree& operator=(const ConfigDescTree&) = delete;

  // Valid as long as this object.
  libusb_config_descriptor* Get() { return &mConfig; }

 private:
  struct AltSetting {
    libusb_interface_descriptor desc{};
    std::vector<libusb_endpoint_descriptor> endpoints;
  };
  struct Interface {
    std::uint8_t number = 0;
    std::vector<AltSetting> altSettings;
    std::vector<libusb_interface_descriptor> records;  // What libusb_interface points to.
  };

  void Add(std::span<const std::uint8_t> descriptor);
  void AddExtra(std::span<const std::uint8_t> descriptor);
  void Link();

  const std::vector<std::uint8_t> mBytes;  // Extra bytes are pointed to in here.
  std::vector<Interface> mInterfaces;
  std::vector<libusb_interface> mInterfaceRecords;
  libusb_config_descriptor mConfig{};
};

}  // namespace vel

#endif
