// Class definitions for communications devices 1.2, 5.2.3, and the subclass specifications.
#include "cmd/describe/FieldTable.h"

namespace vel {
namespace {

using Table = DescriptorTable;

constexpr std::array kCallManagementBits = BitNames({"call management", "use DataInterface"});
constexpr std::array kAcmBits = {
    BitsLine{8, 8, "connection notifications"},
    BitsLine{4, 4, "sends break"},
    BitsLine{2, 2, "line coding and serial state"},
    BitsLine{1, 1, "get/set/clear comm features"},
};
constexpr std::array kTelephoneBits = {
    BitsLine{4, 4, "computer centric mode"},
    BitsLine{2, 2, "standalone mode"},
    BitsLine{1, 1, "simple mode"},
};
constexpr std::array kNcmBits = {
    BitsLine{0x20, 0x20, "8-byte ntb input size"},
    BitsLine{0x10, 0x10, "crc mode"},
    BitsLine{8, 8, "max datagram size"},
    BitsLine{4, 4, "encapsulated commands"},
    BitsLine{2, 2, "net address"},
    BitsLine{1, 1, "packet filter"},
};
constexpr std::array kMbimBits = {
    BitsLine{0x20, 0x20, "8-byte ntb input size"},
    BitsLine{8, 8, "max datagram size"},
};

constexpr std::array kHeader = {Field{"bcdCDC", 2, As::kBcd}};
constexpr std::array kVersion = {Field{"bcdVersion", 2, As::kBcd}};
constexpr std::array kCallManagement = {
    Field{"bmCapabilities", 1, As::kHex, 0, Flow::kOnce, {}, kCallManagementBits},
    Field{"bDataInterface"},
};
constexpr std::array kAcm = {Field{"bmCapabilities", 1, As::kHex, 0, Flow::kOnce, {}, kAcmBits}};
constexpr std::array kUnion = {
    Field{"bMasterInterface"},
    Field{"bSlaveInterface", kToTheEnd, As::kList, -24},
};
constexpr std::array kCountry = {
    Field{"iCountryCodeRelDate", 1, As::kString},
    Field{"wCountryCode", 2, As::kHex, 0, Flow::kRest},
};
constexpr std::array kTelephone = {Field{"bmCapabilities", 1, As::kHex, 0, Flow::kOnce, {}, kTelephoneBits}};
constexpr std::array kNetworkChannel = {
    Field{"bEntityId"},
    Field{"iName", 1, As::kString},
    Field{"bChannelIndex"},
    Field{"bPhysicalInterface"},
};
constexpr std::array kEthernet = {
    Field{"iMacAddress", 1, As::kString}, Field{"bmEthernetStatistics", 4, As::kHex},
    Field{"wMaxSegmentSize", 2},          Field{"wNumberMCFilters", 2, As::kHex},
    Field{"bNumberPowerFilters"},
};
constexpr std::array kMdlm = {
    Field{"bcdCDC", 2, As::kBcd},
    Field{"bGUID", 16, As::kGuid, -20},
};
constexpr std::array kMdlmDetail = {
    Field{"bGuidDescriptorType", 1, As::kBytes, -21},
    Field{"bDetailData", kToTheEnd, As::kBytes, -21},
};
constexpr std::array kDeviceManagement = {
    Field{"bcdVersion", 2, As::kBcd},
    Field{"wMaxCommand", 2, As::kNumber, 24},
};
constexpr std::array kNcm = {
    Field{"bcdNcmVersion", 2, As::kBcd},
    Field{"bmNetworkCapabilities", 1, As::kHex, 0, Flow::kOnce, {}, kNcmBits},
};
constexpr std::array kMbim = {
    Field{"bcdMBIMVersion", 2, As::kBcd},
    Field{"wMaxControlMessage", 2, As::kNumber, -21},
    Field{"bNumberFilters", 1, As::kNumber, -21},
    Field{"bMaxFilterSize", 1, As::kNumber, -21},
    Field{"wMaxSegmentSize", 2, As::kNumber, -21},
    Field{"bmNetworkCapabilities", 1, As::kHex, 0, Flow::kOnce, {}, kMbimBits},
};
constexpr std::array kMbimExtended = {
    Field{"bcdMBIMExtendedVersion", 2, As::kBcd},
    Field{"bMaxOutstandingCommandMessages"},
    Field{"wMTU", 2},
};

constexpr Table Cdc(std::uint8_t subtype, std::string_view heading, std::span<const Field> fields,
                    std::int8_t width = 25) {
  return {.subtype = subtype, .heading = heading, .fields = fields, .width = width, .head = Table::Head::kNone};
}

constexpr std::array kTables = {
    Cdc(0x00, "CDC Header", kHeader),
    Cdc(0x01, "CDC Call Management", kCallManagement),
    Cdc(0x02, "CDC ACM", kAcm),
    Cdc(0x06, "CDC Union", kUnion),
    Cdc(0x07, "Country Selection", kCountry, 28),
    Cdc(0x08, "CDC Telephone operations", kTelephone),
    Cdc(0x0A, "Network Channel Terminal", kNetworkChannel, 27),
    Cdc(0x0F, "CDC Ethernet", kEthernet, 34),
    Cdc(0x11, "CDC WHCM", kVersion),
    Cdc(0x12, "CDC MDLM", kMdlm),
    Cdc(0x13, "CDC MDLM detail", kMdlmDetail),
    Cdc(0x14, "CDC Device Management", kDeviceManagement),
    Cdc(0x15, "CDC OBEX", kVersion),
    Cdc(0x1A, "CDC NCM", kNcm),
    Cdc(0x1B, "CDC MBIM", kMbim),
    Cdc(0x1C, "CDC MBIM Extended", kMbimExtended, 37),
};

}  // namespace

std::span<const DescriptorTable> CdcTables() {
  return kTables;
}

}  // namespace vel
