// Names that people know for the numbers in descriptors. Empty where there is none.
#ifndef VIRTUSB_HOST_CMD_DESCRIBE_USB_NAMES_H
#define VIRTUSB_HOST_CMD_DESCRIBE_USB_NAMES_H

#include <cstdint>
#include <string_view>

namespace vel {

std::string_view ClassName(std::uint8_t usbClass);  // USB-IF class codes.
std::string_view SubClassName(std::uint8_t usbClass, std::uint8_t subClass);
std::string_view ProtocolName(std::uint8_t usbClass, std::uint8_t subClass, std::uint8_t protocol);
std::string_view TransferTypeName(std::uint8_t attributes);  // Bits 0 and 1 of bmAttributes (USB 2.0, 9.6.6).
std::string_view SynchTypeName(std::uint8_t attributes);     // Bits 2 and 3.
std::string_view UsageTypeName(std::uint8_t attributes);     // Bits 4 and 5.
std::string_view SpeedName(int speed);                       // enum libusb_speed
std::string_view TransferStatusName(int status);             // enum libusb_transfer_status

}  // namespace vel

#endif
