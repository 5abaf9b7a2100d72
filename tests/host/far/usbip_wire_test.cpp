#include "far/UsbipWire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

namespace vel {
namespace {

using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

// CMD_SUBMIT as the kernel sends it: number 7, OUT on endpoint 3, two isochronous packets.
constexpr std::uint8_t kSubmit[] = {0, 0, 0, 1, 0, 0, 0, 7, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3,  // basic header
                                    0, 0, 0, 2, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 8,  // ... interval
                                    0, 0, 0, 0, 0, 0, 0, 0,                                      // setup
                                    9, 8, 7, 6,                                                  // data
                                    0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0,              // packet 0
                                    0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};             // packet 1
// What is read as it has to be, and answered, the kernel's own client shows.
TEST(UsbipWire, WhatCannotBeACommandEndsTheStream) {
  struct Case {
    std::size_t at;
    std::uint8_t value;
    const char* error;
  };
  for (const Case& wrong : {Case{3, 5, "command 5"}, Case{15, 2, "direction 2"}, Case{19, 16, "endpoint 16"},
                            Case{24, 0x10, "268435460 bytes"}, Case{34, 0x10, "4098 packets"},
                            Case{59, 5, "outside its request"}, Case{70, 1, "outside its request"}}) {
    Bytes bytes(std::begin(kSubmit), std::end(kSubmit));
    bytes[wrong.at] = wrong.value;
    UsbipReader reader;
    Urb urb;
    UnlinkRequest unlink;
    std::ranges::copy(bytes, reader.Room().begin());
    reader.Filled(bytes.size());
    EXPECT_EQ(reader.Next(urb, unlink), UsbipReader::Got::kError) << wrong.at;
    EXPECT_EQ(reader.Next(urb, unlink), UsbipReader::Got::kError);
    EXPECT_THAT(reader.Error(), HasSubstr(wrong.error));
  }
}

}  // namespace
}  // namespace vel
