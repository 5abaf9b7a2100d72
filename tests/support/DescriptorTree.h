#ifndef VIRTUSB_TESTS_SUPPORT_DESCRIPTOR_TREE_H
#define VIRTUSB_TESTS_SUPPORT_DESCRIPTOR_TREE_H

#include <cstdint>
#include <vector>

#include <libusb-1.0/libusb.h>

namespace vel {

// A configuration in libusb's layout with one interface, two alternate settings and an endpoint in
// the second. What a test breaks in it stays broken: nothing here repairs a count or a length.
struct DescriptorTree {
  DescriptorTree() {
    endpoint.bLength = 7;
    endpoint.bDescriptorType = LIBUSB_DT_ENDPOINT;
    endpoint.bEndpointAddress = 0x81;
    endpoint.bmAttributes = 5;
    endpoint.wMaxPacketSize = 0x0402;
    endpoint.bInterval = 1;
    endpoint.bSynchAddress = 0xB2;
    for (std::uint8_t i = 0; i < 2; ++i) {
      settings[i].bLength = 9;
      settings[i].bDescriptorType = LIBUSB_DT_INTERFACE;
      settings[i].bInterfaceNumber = 3;
      settings[i].bAlternateSetting = i;
      settings[i].bInterfaceClass = 0xFF;
    }
    settings[1].bNumEndpoints = 1;
    settings[1].endpoint = &endpoint;
    interface.altsetting = settings;
    interface.num_altsetting = 2;
    config.bLength = 9;
    config.bDescriptorType = LIBUSB_DT_CONFIG;
    config.wTotalLength = 34;
    config.bNumInterfaces = 1;
    config.bConfigurationValue = 2;
    config.interface = &interface;
  }
  DescriptorTree(const DescriptorTree&) = delete;
  DescriptorTree& operator=(const DescriptorTree&) = delete;

  // The bytes stay the caller's.
  template <class Desc>
  static void SetExtra(Desc& desc, const std::vector<std::uint8_t>& bytes) {
    desc.extra = bytes.data();
    desc.extra_length = static_cast<int>(bytes.size());
  }

  // Makes it a camera's streaming interface with this block, whose bytes stay the caller's.
  void BeCamera(const std::vector<std::uint8_t>& block) {
    for (libusb_interface_descriptor& setting : settings) {
      setting.bInterfaceClass = 14;
      setting.bInterfaceSubClass = 2;
    }
    SetExtra(settings[0], block);
  }

  libusb_endpoint_descriptor endpoint{};
  libusb_interface_descriptor settings[2]{};
  libusb_interface interface {};
  libusb_config_descriptor config{};
};

}  // namespace vel

#endif
