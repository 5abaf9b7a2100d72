#include "cmd/UsbNames.h"

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
constexpr std::array kCdcSubtypes = {Name{0x00, "CDC Header"}, Name{0x01, "CDC Call Management"}, Name{0x02, "CDC ACM"},
                                     Name{0x06, "CDC Union"}};

std::string_view Find(std::span<const Name> names, int number) {
  const auto found =
      std::find_if(names.begin(), names.end(), [number](const Name& name) { return name.number == number; });
  return found == names.end() ? std::string_view("") : found->text;  // Its data() may go to printf.
}

}  // namespace

std::string_view ClassName(std::uint8_t usbClass) {
  return Find(kClasses, usbClass);
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
std::string_view CdcSubtypeName(std::uint8_t subtype) {
  return Find(kCdcSubtypes, subtype);
}

}  // namespace vel
