#include "remote/RequestBuilder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace vel {
namespace {

constexpr RequestId kId{0xA5, 0x11223344};

// Hex digits of a packet, a space between header, fields and the rest as the cases below write
// them.
std::string Hex(const VelPacket& packet) {
  std::string text;
  for (const std::uint8_t byte : packet.Wire()) {
    char cell[3];
    std::snprintf(cell, sizeof cell, "%02X", unsigned{byte});
    text += cell;
  }
  return text;
}

std::string Join(std::string text) {
  std::erase(text, ' ');
  return text;
}

TEST(RequestBuilderTest, PacketsAreRightToTheByte) {
  const std::vector<std::uint8_t> abc = {'a', 'b', 'c'};
  const std::vector<std::uint32_t> lengths = {1, 2};
  const std::vector<std::uint32_t> none;
  struct {
    const char* name;
    std::unique_ptr<VelPacket> packet;
    const char* bytes;
  } const cases[] = {
      {"open", BuildRequest(Command::kOpenUsbDev, kId), "27A50210 44332211 10000000 00000000"},
      {"payload", BuildRequest(Command::kResetDevice, kId, abc), "27A51010 44332211 13000000 00000000 616263"},
      {"set configuration", BuildU32Request(Command::kSetConfiguration, kId, 0x01020304),
       "27A51A10 44332211 14000000 00000000 04030201"},
      {"set alternate setting", BuildAltSettingRequest(kId, 2, 5),
       "27A51E10 44332211 18000000 00000000 02000000 05000000"},
      {"string", BuildStringRequest(kId, 3, 0x0409, 255), "27A50E10 44332211 17000000 00000000 03 0904 FF000000"},
      {"control IN", BuildControlRequest(kId, {0x80, 6, 0x0305, 0x0409, 4}, 1000),
       "27A52210 44332211 20000000 00000000 80 06 0503 0904 0400 E8030000 00000000"},
      {"control OUT", BuildControlRequest(kId, {0x21, 9, 0x0200, 0, 3}, 1, abc),
       "27A52210 44332211 1F000000 00000000 21 09 0002 0000 0300 01000000 616263"},
      {"control without data", BuildControlRequest(kId, {0x00, 9, 1, 0, 0}, 0),
       "27A52210 44332211 1C000000 00000000 00 09 0100 0000 0000 00000000"},
      {"policy", BuildPolicyRequest(kId, abc), "27A52C10 44332211 17000000 00000000 03000000 616263"},
      {"ping", BuildPing(kId, 7, 0x0102030405060708), "27A50400 44332211 1C000000 00000000 07000000 0807060504030201"},
      {"bulk IN", BuildTransferRequest(Command::kBulkTransfer, kId, 0x81, 9, 512, {}),
       "27A52410 44332211 1C000000 00000000 81000000 09000000 00020000"},
      {"interrupt OUT", BuildTransferRequest(Command::kInterruptTransfer, kId, 0x02, 10, 3, abc),
       "27A52610 44332211 1F000000 00000000 02000000 0A000000 03000000 616263"},
      {"isochronous OUT", BuildIsoRequest(kId, 0x03, 11, lengths, abc),
       "27A52810 44332211 43000000 00000000 03000000 0B000000 02000000 23000000"
       "20000000 01000000 00000000 00000000 21000000 02000000 00000000 00000000 616263"},
      {"isochronous IN", BuildIsoRequest(kId, 0x83, 12, lengths, {}),
       "27A52810 44332211 40000000 00000000 83000000 0C000000 02000000 23000000"
       "20000000 01000000 00000000 00000000 21000000 02000000 00000000 00000000"},
      {"no packets", BuildIsoRequest(kId, 0x83, 13, none, {}),
       "27A52810 44332211 20000000 00000000 83000000 0D000000 00000000 00000000"}};
  for (const auto& test : cases) {
    EXPECT_EQ(Hex(*test.packet), Join(test.bytes)) << test.name;
  }
}

}  // namespace
}  // namespace vel
