#include "cmd/describe/FieldTable.h"

#include <algorithm>

namespace vel {

namespace {

using Head = DescriptorTable::Head;

// Types of descriptors (USB 3.2, table 9-6; HID 1.11, 7.1; CDC 1.2, table 12), and classes.
constexpr std::uint8_t kAssociation = 0x0B;
constexpr std::uint8_t kCapability = 0x10;
constexpr std::uint8_t kHid = 0x21;
constexpr std::uint8_t kClassInterface = 0x24;
constexpr std::uint8_t kClassEndpoint = 0x25;
constexpr std::uint8_t kCommunications = 0x02;
constexpr std::uint8_t kHumanInterface = 0x03;
constexpr std::uint8_t kCdcData = 0x0A;
constexpr std::uint8_t kVideo = 0x0E;

constexpr std::array kCountries = {
    ValueName{0, "Not supported"},
    ValueName{1, "Arabic"},
    ValueName{2, "Belgian"},
    ValueName{3, "Canadian-Bilingual"},
    ValueName{4, "Canadian-French"},
    ValueName{5, "Czech Republic"},
    ValueName{6, "Danish"},
    ValueName{7, "Finnish"},
    ValueName{8, "French"},
    ValueName{9, "German"},
    ValueName{10, "Greek"},
    ValueName{11, "Hebrew"},
    ValueName{12, "Hungary"},
    ValueName{13, "International (ISO)"},
    ValueName{14, "Italian"},
    ValueName{15, "Japan (Katakana)"},
    ValueName{16, "Korean"},
    ValueName{17, "Latin American"},
    ValueName{18, "Netherlands/Dutch"},
    ValueName{19, "Norwegian"},
    ValueName{20, "Persian (Farsi)"},
    ValueName{21, "Poland"},
    ValueName{22, "Portuguese"},
    ValueName{23, "Russia"},
    ValueName{24, "Slovakia"},
    ValueName{25, "Spanish"},
    ValueName{26, "Swedish"},
    ValueName{27, "Swiss/French"},
    ValueName{28, "Swiss/German"},
    ValueName{29, "Switzerland"},
    ValueName{30, "Taiwan"},
    ValueName{31, "Turkish-Q"},
    ValueName{32, "UK"},
    ValueName{33, "US"},
    ValueName{34, "Yugoslavia"},
    ValueName{35, "Turkish-F"},
    ValueName{kAnyOther, "Unknown"},
};
constexpr std::array kHidTypes = {ValueName{0x21, "HID"}, ValueName{0x22, "Report"}, ValueName{0x23, "Physical"}};

constexpr std::array kAssociationFields = {
    Field{"bFirstInterface"},
    Field{"bInterfaceCount"},
    Field{"bFunctionClass", 1, As::kClass},
    Field{"bFunctionSubClass", 1, As::kSubClass},
    Field{"bFunctionProtocol", 1, As::kProtocol},
    Field{"iFunction", 1, As::kString},
};
constexpr DescriptorTable kAssociationTable = {
    .heading = "Interface Association", .fields = kAssociationFields, .head = Head::kType};

constexpr std::array kHidFields = {
    Field{"bcdHID", 2, As::kBcd},
    Field{.name = "bCountryCode", .names = kCountries},
    Field{.name = "bNumDescriptors", .flow = Flow::kCounts},
    Field{.name = "bDescriptorType", .flow = Flow::kEach, .names = kHidTypes},
    Field{.name = "wDescriptorLength", .size = 2, .flow = Flow::kEach},
};
constexpr DescriptorTable kHidTable = {
    .heading = "HID Device Descriptor", .fields = kHidFields, .head = Head::kType, .indent = 2};

constexpr std::array kVideoEndpointFields = {Field{"wMaxTransferSize", 2}};
constexpr DescriptorTable kVideoEndpointTable = {
    .heading = "VideoControl Endpoint Descriptor", .subtypeName = "(EP_INTERRUPT)", .fields = kVideoEndpointFields};

// USB 3.2, 9.6.2.
constexpr std::array kExtensionBits = {
    BitsLine{6, 2, "HIRD Link Power Management (LPM) Supported"},
    BitsLine{6, 6, "BESL Link Power Management (LPM) Supported"},
};
constexpr std::array kExtensionFields = {Field{"bmAttributes", 4, As::kHex, 25, Flow::kOnce, {}, kExtensionBits}};
constexpr std::array kSuperSpeedBits = {BitsLine{2, 2, "Latency Tolerance Messages (LTM) Supported"}};
constexpr std::array kSpeeds = BitNames({
    "Device can operate at Low Speed (1Mbps)",
    "Device can operate at Full Speed (12Mbps)",
    "Device can operate at High Speed (480Mbps)",
    "Device can operate at SuperSpeed (5Gbps)",
});
constexpr std::uint32_t kAllBits = 0xFF;
constexpr std::array kLowestSpeeds = {
    BitsLine{kAllBits, 0, "Lowest fully-functional device speed is Low Speed (1Mbps)"},
    BitsLine{kAllBits, 1, "Lowest fully-functional device speed is Full Speed (12Mbps)"},
    BitsLine{kAllBits, 2, "Lowest fully-functional device speed is High Speed (480Mbps)"},
    BitsLine{kAllBits, 3, "Lowest fully-functional device speed is SuperSpeed (5Gbps)"},
};
constexpr std::array kMicroseconds = {ValueName{kAnyOther, "micro seconds"}};
constexpr std::array kSuperSpeedFields = {
    Field{"bmAttributes", 1, As::kHex, 0, Flow::kOnce, {}, kSuperSpeedBits},
    Field{"wSpeedsSupported", 2, As::kHex, 0, Flow::kOnce, {}, kSpeeds},
    Field{.name = "bFunctionalitySupport", .lines = kLowestSpeeds},
    Field{.name = "bU1DevExitLat", .names = kMicroseconds},
    Field{.name = "bU2DevExitLat", .size = 2, .names = kMicroseconds},
};
constexpr std::array kContainerFields = {Field{"bReserved"}, Field{"ContainerID", 16, As::kGuid, -24}};
constexpr std::array kPlatformFields = {
    Field{"bReserved"},
    Field{"PlatformCapabilityUUID", 16, As::kGuid, -26},
    Field{"CapabilityData(", 1, As::kHex, 25, Flow::kRest},
};

constexpr DescriptorTable Capability(std::uint8_t type, std::string_view heading, std::span<const Field> fields) {
  return {.subtype = type, .heading = heading, .fields = fields, .head = Head::kCapability};
}
constexpr std::array kCapabilityTables = {
    Capability(0x02, "USB 2.0 Extension Device Capability", kExtensionFields),
    Capability(0x03, "SuperSpeed USB Device Capability", kSuperSpeedFields),
    Capability(0x04, "Container ID Device Capability", kContainerFields),
    Capability(0x05, "Platform Device Capability", kPlatformFields),
};

const DescriptorTable* BySubtype(std::span<const DescriptorTable> tables, std::uint8_t subtype) {
  const auto found = std::ranges::find(tables, subtype, &DescriptorTable::subtype);
  if (found != tables.end()) {
    return &*found;
  }
  return !tables.empty() && tables.back().fields.empty() ? &tables.back() : nullptr;
}

const DescriptorTable* VideoControlTable(std::span<const std::uint8_t> descriptor) {
  constexpr std::uint8_t kInputTerminal = 0x02;
  const bool camera = descriptor.size() > 5 && descriptor[2] == kInputTerminal && descriptor[4] == 0x01 &&
                      descriptor[5] == 0x02;  // wTerminalType, ITT_CAMERA
  return camera ? &CameraTerminalTable() : BySubtype(VideoControlTables(), descriptor[2]);
}

}  // namespace

const DescriptorTable* FindTable(const DescriptorPlace& place, std::span<const std::uint8_t> descriptor) {
  const std::uint8_t type = descriptor[1];
  if (type == kAssociation) {
    return &kAssociationTable;
  }
  if (type == kHid) {
    return place.interfaceClass == kHumanInterface ? &kHidTable : nullptr;
  }
  if (descriptor.size() < 3) {
    return nullptr;
  }
  if (type == kCapability) {
    return BySubtype(kCapabilityTables, descriptor[2]);
  }
  if (type == kClassEndpoint && place.endpoint && place.interfaceClass == kVideo) {
    return &kVideoEndpointTable;
  }
  if (type != kClassInterface || place.endpoint) {
    return nullptr;
  }
  if (place.interfaceClass == kVideo) {
    return place.interfaceSubClass == 1   ? VideoControlTable(descriptor)
           : place.interfaceSubClass == 2 ? BySubtype(VideoStreamingTables(), descriptor[2])
                                          : nullptr;
  }
  return place.interfaceClass == kCommunications || place.interfaceClass == kCdcData
             ? BySubtype(CdcTables(), descriptor[2])
             : nullptr;
}

}  // namespace vel
