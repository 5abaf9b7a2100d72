#include "cmd/DescriptorText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vel {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// A keyboard with a serial port: every kind of line that the text knows.
Enumeration Sample() {
  Enumeration found;
  found.bus = 3;
  found.address = 130;
  found.port = 1;
  found.speed = 2;
  found.device = {18, 1, 0x0210, 0xEF, 2, 1, 64, 0x1A86, 0x7523, 0x0264, 1, 2, 0, 1};
  found.strings = {{1, "Maker"}, {2, "Port & Keys"}, {4, "Keys"}};
  AltSettingModel keys{9, 4, 0, 0, 1, 3, 1, 1, 4, {}, {9, 0x21, 0x11, 0x01, 0, 1, 0x22, 0x3F, 0}};
  keys.endpoints.push_back({7, 5, 0x81, 3, 8, 10, 0, 0, {}});
  AltSettingModel serial{9, 4, 1, 1, 1, 2, 2, 0, 0, {}, {5, 0x24, 0, 0x20, 0x01, 4, 0x24, 2, 6, 5, 0x24, 6, 1, 2}};
  serial.endpoints.push_back({9, 5, 0x02, 0x15, 0x0C00, 1, 2, 0x83, {3, 0x30, 0xAB}});
  found.config = ConfigModel{9, 2, 0x4B, 2, 1, 0, 0xE0, 49, {{serial}, {keys}}, {}};
  return found;
}

TEST(DescriptorTextTest, LooksAsPeopleKnowIt) {
  EXPECT_THAT(DescriptorText(Sample()),
              StartsWith("Bus 003 Device 130: ID 1a86:7523 Port & Keys\nDevice Descriptor:\n"));
  EXPECT_THAT(DescriptorText(Sample()), HasSubstr(R"(      CDC Header:
        bcdCDC               1.20
      CDC ACM:
        bmCapabilities       0x06
      CDC Union:
        bMasterInterface        1
        bSlaveInterface         2
      Endpoint Descriptor:
        bLength                 9
        bDescriptorType         5
        bEndpointAddress     0x02  EP 2 OUT
        bmAttributes           21
          Transfer Type            Isochronous
          Synch Type               Asynchronous
          Usage Type               Feedback
        wMaxPacketSize     0x0c00  2x 1024 bytes
        bInterval               1
        bRefresh                2
        bSynchAddress         131
        ** UNRECOGNIZED:  03 30 ab
)"));
  EXPECT_THAT(DescriptorText(Sample()), HasSubstr(R"(      HID Device Descriptor:
        bLength                 9
        bDescriptorType        33
        bcdHID               1.11
        bCountryCode            0 Not supported
        bNumDescriptors         1
        bDescriptorType        34 Report
        wDescriptorLength      63
)"));
}

TEST(DescriptorTextTest, NumbersWithoutANameAreNotPrintedAsNull) {
  Enumeration found = Sample();
  found.speed = -99;
  found.device.bDeviceClass = 0x99;
  found.config->interfaces[1][0].bInterfaceClass = 0x98;
  for (const std::string& text : {DescriptorText(found), DescriptorSummary(found), DescriptorJson(found).dump()}) {
    EXPECT_THAT(text, Not(HasSubstr("null")));
  }
}

}  // namespace
}  // namespace vel
