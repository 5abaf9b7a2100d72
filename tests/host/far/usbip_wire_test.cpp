#include "far/UsbipWire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

namespace vel {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

// CMD_SUBMIT as the kernel sends it: number 7, OUT on endpoint 3, two isochronous packets.
const Bytes kSubmit = {0, 0, 0, 1, 0, 0, 0, 7, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3,  // basic header
                       0, 0, 0, 2, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 8,  // ... interval
                       0, 0, 0, 0, 0, 0, 0, 0,                                      // setup
                       9, 8, 7, 6,                                                  // data
                       0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0,              // packet 0
                       0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};             // packet 1
const Bytes kUnlink = [] {
  Bytes bytes(kUsbipHeaderBytes);
  bytes[3] = 2;
  bytes[7] = 9;
  bytes[23] = 7;
  return bytes;
}();

UsbipReader::Got Feed(UsbipReader& reader, const Bytes& bytes, Urb& urb, UnlinkRequest& unlink) {
  const auto room = reader.Room();
  std::ranges::copy(bytes, room.begin());
  reader.Filled(bytes.size());
  return reader.Next(urb, unlink);
}

TEST(UsbipWire, CommandsAreReadAsTheKernelWritesThem) {
  UsbipReader reader;
  Urb urb;
  UnlinkRequest unlink;
  EXPECT_EQ(Feed(reader, Bytes(kSubmit.begin(), kSubmit.end() - 1), urb, unlink), UsbipReader::Got::kNothing);
  Bytes rest = {kSubmit.back()};
  rest.insert(rest.end(), kUnlink.begin(), kUnlink.end());
  ASSERT_EQ(Feed(reader, rest, urb, unlink), UsbipReader::Got::kUrb);
  EXPECT_EQ(urb.seqnum, 7U);
  EXPECT_EQ(urb.endpoint, 0x03);
  EXPECT_EQ(urb.interval, 8U);
  EXPECT_THAT(urb.data, ElementsAre(9, 8, 7, 6));
  ASSERT_EQ(urb.packets.size(), 2U);
  EXPECT_EQ(urb.packets[1].offset, 3U);
  EXPECT_EQ(urb.packets[1].length, 1U);
  ASSERT_EQ(reader.Next(urb, unlink), UsbipReader::Got::kUnlink);
  EXPECT_EQ(unlink.seqnum, 9U);
  EXPECT_EQ(unlink.target, 7U);
  EXPECT_EQ(reader.Next(urb, unlink), UsbipReader::Got::kNothing);
}

TEST(UsbipWire, WhatCannotBeACommandEndsTheStream) {
  struct Case {
    std::size_t at;
    std::uint8_t value;
    const char* error;
  };
  for (const Case& wrong : {Case{3, 5, "command 5"}, Case{15, 2, "direction 2"}, Case{19, 16, "endpoint 16"},
                            Case{24, 0x10, "268435460 bytes"}, Case{34, 0x10, "4098 packets"},
                            Case{59, 5, "outside its request"}, Case{70, 1, "outside its request"}}) {
    Bytes bytes = kSubmit;
    bytes[wrong.at] = wrong.value;
    UsbipReader reader;
    Urb urb;
    UnlinkRequest unlink;
    EXPECT_EQ(Feed(reader, bytes, urb, unlink), UsbipReader::Got::kError) << wrong.at;
    EXPECT_EQ(reader.Next(urb, unlink), UsbipReader::Got::kError);
    EXPECT_THAT(reader.Error(), HasSubstr(wrong.error));
  }
}

TEST(UsbipWire, RepliesHaveTheirNumbersWhereTheKernelLooks) {
  const std::vector<UrbPacket> packets = {{0, 8, 5, 0}, {8, 8, 0, -EPROTO}};
  const UsbipHeader reply =
      WriteUrbReply({.seqnum = 7, .status = -EPIPE, .actualLength = 5, .data = {}, .packets = packets});
  EXPECT_THAT(std::span(reply).first(40),
              ElementsAre(0, 0, 0, 3, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xE0, 0, 0, 0,
                          5, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1));
  Bytes table;
  AppendPacketTable(table, packets);
  EXPECT_THAT(std::span(table).subspan(16), ElementsAre(0, 0, 0, 8, 0, 0, 0, 8, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xB9));
  const UsbipHeader unlinked = WriteUnlinkReply(9, -ECONNRESET);
  EXPECT_THAT(std::span(unlinked).first(8), ElementsAre(0, 0, 0, 4, 0, 0, 0, 9));
  EXPECT_THAT(std::span(unlinked).subspan(20, 4), ElementsAre(0xFF, 0xFF, 0xFF, 0x98));
  const UsbipDeviceRecord record{.busId = "1-2", .interfaces = {{3, 1, 1}, {8, 6, 80}}};
  EXPECT_EQ(WriteDeviceList(std::span(&record, 1)).size(), 12U + 312U + 8U);
  EXPECT_EQ(WriteImportReply(&record).size(), 8U + 312U);
  EXPECT_THAT(WriteImportReply(nullptr, UsbipRefusal::kBusy), ElementsAre(1, 0x11, 0, 3, 0, 0, 0, 2));
}

}  // namespace
}  // namespace vel
