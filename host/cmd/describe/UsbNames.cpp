#include "cmd/describe/UsbNames.h"

#include <algorithm>
#include <array>
#include <span>

namespace vel {
namespace {

struct Name {
  int number;
  std::string_view text;
};

constexpr std::array kClasses = {
    Name{0x00, "[defined at interface level]"},
    Name{0x01, "Audio"},
    Name{0x02, "Communications"},
    Name{0x03, "Human Interface Device"},
    Name{0x05, "Physical Interface Device"},
    Name{0x06, "Imaging"},
    Name{0x07, "Printer"},
    Name{0x08, "Mass Storage"},
    Name{0x09, "Hub"},
    Name{0x0A, "CDC Data"},
    Name{0x0B, "Chip/SmartCard"},
    Name{0x0D, "Content Security"},
    Name{0x0E, "Video"},
    Name{0x0F, "Personal Healthcare"},
    Name{0x10, "Audio/Video"},
    Name{0x11, "Billboard"},
    Name{0x12, "Type-C Bridge"},
    Name{0xDC, "Diagnostic"},
    Name{0xE0, "Wireless"},
    Name{0xEF, "Miscellaneous Device"},
    Name{0xFE, "Application Specific Interface"},
    Name{0xFF, "Vendor Specific Class"},
};

constexpr std::array kTransferTypes = {Name{0, "Control"}, Name{1, "Isochronous"}, Name{2, "Bulk"},
                                       Name{3, "Interrupt"}};
constexpr std::array kSynchTypes = {Name{0, "None"}, Name{1, "Asynchronous"}, Name{2, "Adaptive"},
                                    Name{3, "Synchronous"}};
constexpr std::array kUsageTypes = {Name{0, "Data"}, Name{1, "Feedback"}, Name{2, "Implicit feedback Data"},
                                    Name{3, "(reserved)"}};
constexpr std::array kSpeeds = {Name{0, "unknown"}, Name{1, "low"},   Name{2, "full"},
                                Name{3, "high"},    Name{4, "super"}, Name{5, "super plus"}};
constexpr std::array kStatuses = {Name{0, "completed"}, Name{1, "error"},   Name{2, "timed out"},
                                  Name{3, "cancelled"}, Name{4, "stalled"}, Name{5, "no device"},
                                  Name{6, "overflow"}};
// Class and subclass, and with a protocol these three, as one number.
constexpr std::array kSubClasses = {
    Name{0x0101, "Control Device"},
    Name{0x0102, "Streaming"},
    Name{0x0103, "MIDI Streaming"},
    Name{0x0201, "Direct Line"},
    Name{0x0202, "Abstract (modem)"},
    Name{0x0203, "Telephone"},
    Name{0x0204, "Multi-Channel"},
    Name{0x0205, "CAPI Control"},
    Name{0x0206, "Ethernet Networking"},
    Name{0x0207, "ATM Networking"},
    Name{0x0208, "Wireless Handset Control"},
    Name{0x0209, "Device Management"},
    Name{0x020A, "Mobile Direct Line"},
    Name{0x020B, "OBEX"},
    Name{0x020C, "Ethernet Emulation"},
    Name{0x0301, "Boot Interface Subclass"},
    Name{0x0601, "Still Image Capture"},
    Name{0x0701, "Printer"},
    Name{0x0806, "SCSI"},
    Name{0x0E01, "Video Control"},
    Name{0x0E02, "Video Streaming"},
    Name{0x0E03, "Video Interface Collection"},
    Name{0xE001, "Radio Frequency"},
    Name{0xFE01, "Device Firmware Update"},
    Name{0xFFFF, "Vendor Specific Subclass"},
};
constexpr std::array kProtocols = {
    Name{0x020201, "AT-commands (v.25ter)"},
    Name{0x020202, "AT-commands (PCCA101)"},
    Name{0x020206, "AT-commands (CDMA)"},
    Name{0x0202FF, "Vendor Specific (MSFT RNDIS?)"},
    Name{0x020C07, "Ethernet Emulation (EEM)"},
    Name{0x030101, "Keyboard"},
    Name{0x030102, "Mouse"},
    Name{0x060101, "Picture Transfer Protocol (PIMA 15470)"},
    Name{0x070101, "Unidirectional"},
    Name{0x070102, "Bidirectional"},
    Name{0x070103, "IEEE 1284.4 compatible bidirectional"},
    Name{0x080650, "Bulk-Only"},
    Name{0xE00101, "Bluetooth"},
    Name{0xEF0201, "Interface Association"},
    Name{0xFFFFFF, "Vendor Specific Protocol"},
};

std::string_view Find(std::span<const Name> names, int number) {
  const auto found =
      std::find_if(names.begin(), names.end(), [number](const Name& name) { return name.number == number; });
  return found == names.end() ? std::string_view("") : found->text;  // Its data() may go to printf.
}

}  // namespace

std::string_view ClassName(std::uint8_t usbClass) {
  return Find(kClasses, usbClass);
}
std::string_view SubClassName(std::uint8_t usbClass, std::uint8_t subClass) {
  return Find(kSubClasses, usbClass << 8 | subClass);
}
std::string_view ProtocolName(std::uint8_t usbClass, std::uint8_t subClass, std::uint8_t protocol) {
  return Find(kProtocols, usbClass << 16 | subClass << 8 | protocol);
}
std::string_view TransferTypeName(std::uint8_t attributes) {
  return Find(kTransferTypes, attributes & 3);
}
std::string_view SynchTypeName(std::uint8_t attributes) {
  return Find(kSynchTypes, (attributes >> 2) & 3);
}
std::string_view UsageTypeName(std::uint8_t attributes) {
  return Find(kUsageTypes, (attributes >> 4) & 3);
}
std::string_view SpeedName(int speed) {
  return Find(kSpeeds, speed);
}
std::string_view TransferStatusName(int status) {
  return Find(kStatuses, status);
}

}  // namespace vel
