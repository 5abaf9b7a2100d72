// What the mocked devices share: their text for umockdev, and views of the calls that reach them.
#ifndef VIRTUSB_TESTS_MOCKDEV_MOCKED_USBFS_H
#define VIRTUSB_TESTS_MOCKDEV_MOCKED_USBFS_H

#include <linux/usbdevice_fs.h>
#include <umockdev.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vel {

// The node of a device on bus 1, below /dev.
inline std::string NodeOf(std::uint8_t address) {
  const std::string digits = std::to_string(address);
  return "bus/usb/001/" + std::string(3 - digits.size(), '0') + digits;
}

// A device in umockdev's notation.
inline std::string DeviceText(const std::string& path, std::uint8_t address,
                              const std::vector<std::uint8_t>& descriptors) {
  std::string text = "P: " + path + "\nN: " + NodeOf(address) + "\n";
  text += "E: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: BUSNUM=001\nE: DEVNUM=" + std::to_string(address) + "\n";
  text += "E: DEVNAME=/dev/" + NodeOf(address) + "\nA: busnum=1\\n\nA: devnum=" + std::to_string(address) + "\\n\n";
  text += "A: bConfigurationValue=1\\n\nA: speed=480\\n\nH: descriptors=";
  for (const std::uint8_t byte : descriptors) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    text += {kDigits[byte >> 4U], kDigits[byte & 15U]};
  }
  return text + "\n";
}

// A view of what the client's memory holds there; copied back when the call completes.
template <class T>
T& As(UMockdevIoctlData& data) {
  return *reinterpret_cast<T*>(data.data);
}

inline usbdevfs_urb& Raw(UMockdevIoctlData& data) {
  return As<usbdevfs_urb>(data);
}

inline std::span<usbdevfs_iso_packet_desc> Packets(UMockdevIoctlData& data) {
  return {Raw(data).iso_frame_desc, static_cast<std::size_t>(Raw(data).number_of_packets)};
}

}  // namespace vel

#endif
