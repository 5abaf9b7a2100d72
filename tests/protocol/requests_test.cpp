#include "protocol/Requests.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "protocol/ByteReader.h"

namespace vel {
namespace {

using testing::IsEmpty;

// A payload field by field, in a block of exactly its size, so that a read beyond it is noticed.
class Payload {
 public:
  Payload U8(std::uint8_t value) && { return std::move(*this).Little(value, 1); }
  Payload U16(std::uint16_t value) && { return std::move(*this).Little(value, 2); }
  Payload U32(std::uint32_t value) && { return std::move(*this).Little(value, 4); }
  Payload Fill(std::size_t n, std::uint8_t value = 0xEE) && {
    mBytes.insert(mBytes.end(), n, value);
    return std::move(*this);
  }
  Payload IsoPacket(std::uint32_t length) && { return std::move(*this).U32(0).U32(length).U32(0).U32(0); }
  std::vector<std::uint8_t> Exact() const { return {mBytes.begin(), mBytes.end()}; }

 private:
  Payload Little(std::uint32_t value, int size) && {
    for (int i = 0; i < size; ++i) {
      mBytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    return std::move(*this);
  }
  std::vector<std::uint8_t> mBytes;
};

constexpr std::uint32_t kMiB = 1U << 20U;

TEST(ByteReader, FailureSticksAlthoughASmallerReadWouldFit) {
  const std::vector<std::uint8_t> bytes = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  ByteReader reader(bytes);
  EXPECT_EQ(reader.Host<std::uint8_t>(), 0x01);
  reader.Skip(2);
  EXPECT_EQ(reader.Host<std::uint32_t>(), 0x07060504U);
  EXPECT_TRUE(reader.Ok());
  EXPECT_EQ(reader.Host<std::uint32_t>(), 0U);
  EXPECT_EQ(reader.Host<std::uint8_t>(), 0U);
  EXPECT_THAT(reader.Rest(), IsEmpty());
  EXPECT_FALSE(reader.Ok());
  ByteReader huge(bytes);
  huge.Skip(SIZE_MAX);
  EXPECT_FALSE(huge.Ok());
}

Payload Bulk(std::uint32_t endpoint, std::uint32_t length) {
  return Payload().U32(endpoint).U32(7).U32(length);
}
Payload Iso(std::uint32_t endpoint, std::uint32_t packets, std::uint32_t length) {
  return Payload().U32(endpoint).U32(7).U32(packets).U32(length);
}

constexpr PayloadError kNone = PayloadError::kNone;
constexpr PayloadError kShort = PayloadError::kTooShort;
constexpr PayloadError kLong = PayloadError::kTooLong;
constexpr PayloadError kTable = PayloadError::kIsoTable;

TEST(TransferRequest, IsCheckedAgainstWhatIsThere) {
  const struct {
    const char* name;
    bool iso;
    Payload payload;
    PayloadError error;
    std::uint32_t streamId;
    std::size_t dataSize;
  } cases[] = {
      {"empty", false, Payload(), kShort, 0, 0},
      {"no length", false, Payload().U32(0x81).U32(7).Fill(3), kShort, 7, 0},
      {"out complete", false, Bulk(0x01, 5).Fill(5), kNone, 7, 5},
      {"out last byte missing", false, Bulk(0x01, 5).Fill(4), kShort, 7, 0},
      {"bytes behind the data are ignored", false, Bulk(0x01, 5).Fill(9), kNone, 7, 5},
      {"in with part of its filler", false, Bulk(0x81, 5).Fill(2), kNone, 7, 2},
      {"in without filler", false, Bulk(0x81, 64 * kMiB), kNone, 7, 0},
      {"in above the bound", false, Bulk(0x81, 64 * kMiB + 1), kLong, 7, 0},
      {"out above the bound", false, Bulk(0x01, 64 * kMiB + 1), kLong, 7, 0},
      {"only the low byte names the endpoint", false, Bulk(0xFFFFFF01, 1), kShort, 7, 0},
      {"no length", true, Payload().U32(0x83).U32(7).U32(1).Fill(3), kShort, 7, 0},
      {"no packets", true, Iso(0x83, 0, 0), kNone, 7, 0},
      {"out exact fit", true, Iso(0x03, 2, 40).IsoPacket(3).IsoPacket(5).Fill(8), kNone, 7, 40},
      {"out packets beyond the data", true, Iso(0x03, 2, 40).IsoPacket(3).IsoPacket(6).Fill(8), kTable, 7, 0},
      {"out data missing", true, Iso(0x03, 1, 24).IsoPacket(8).Fill(7), kShort, 7, 0},
      {"table beyond the length", true, Iso(0x83, 2, 31).IsoPacket(0).IsoPacket(0), kTable, 7, 0},
      {"in table without filler", true, Iso(0x83, 1, 16).IsoPacket(1024), kNone, 7, 16},
      {"in without its table", true, Iso(0x83, 4, 64), kNone, 7, 0},
      {"in with half a record", true, Iso(0x83, 1, 16).Fill(6), kNone, 7, 6},
      {"in answer at the bound", true, Iso(0x83, 1, 16).IsoPacket(64 * kMiB - 16), kNone, 7, 16},
      {"in answer above the bound", true, Iso(0x83, 1, 16).IsoPacket(64 * kMiB - 15), kTable, 7, 0},
      {"lengths that wrap around", true, Iso(0x03, 2, 40).IsoPacket(0xFFFFFFFF).IsoPacket(9).Fill(8), kTable, 7, 0},
      {"most packets", true, Iso(0x83, 1024, 16384), kNone, 7, 0},
      {"one packet too many", true, Iso(0x83, 1025, 16400), kLong, 7, 0},
      {"table size that wraps around", true, Iso(0x83, 0x10000000, 0), kLong, 7, 0},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    const std::vector<std::uint8_t> payload = test.payload.Exact();
    const TransferRequest request = test.iso ? ReadIsoRequest(payload) : ReadTransferRequest(payload);
    EXPECT_EQ(PayloadErrorText(request.error), PayloadErrorText(test.error));
    EXPECT_EQ(request.streamId, test.streamId);
    if (test.error == PayloadError::kNone) {
      EXPECT_EQ(request.data.size(), test.dataSize);
      EXPECT_TRUE(request.data.empty() || request.data.data() == payload.data() + (test.iso ? 16 : 12));
    }
  }
}

TEST(ControlRequest, NeedsItsFieldsAndForOutItsData) {
  struct {
    std::uint8_t type;
    std::uint16_t length;
    std::size_t data;
    bool accepted;
  } const cases[] = {{0x80, 255, 0, true}, {0x80, 255, 100, true},   {0xC1, 0xFFFF, 0, true},
                     {0x00, 0, 0, true},   {0x00, 4, 3, false},      {0x00, 4, 4, true},
                     {0x00, 4, 9, true},   {0x7F, 0xFFFF, 0, false}, {0x21, 0xFFFF, 0xFFFE, false}};
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << int{test.type} << " " << test.length << " " << test.data);
    const auto payload = Payload().U8(test.type).U8(0).U16(0).U16(0).U16(test.length).U32(0).Fill(test.data).Exact();
    const auto request = ReadControlRequest(payload);
    ASSERT_EQ(request.has_value(), test.accepted);
    if (request) {
      EXPECT_EQ(request->data.size(), std::min<std::size_t>(test.length, test.data));
    }
  }
}

// Requests of fixed fields: each is read when whole, and refused at every shorter length.
TEST(FixedRequests, AreRefusedAtEveryShorterLength) {
  const auto bytes = Payload().U8(0x80).U16(0x0409).U32(0xA1B2C3D4).Fill(9).Exact();
  for (std::size_t n = 0; n <= bytes.size(); ++n) {
    SCOPED_TRACE(n);
    const std::vector<std::uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_EQ(ReadU32Request(cut).has_value(), n >= 4);
    EXPECT_EQ(ReadStringRequest(cut).has_value(), n >= 7);
    EXPECT_EQ(ReadAltSettingRequest(cut).has_value(), n >= 8);
    EXPECT_EQ(ReadControlRequest(cut).has_value(), n >= 12);
  }
  const auto control = ReadControlRequest(bytes);
  EXPECT_EQ(control->bmRequestType, 0x80);
  EXPECT_EQ(control->bRequest, 0x09);
  EXPECT_EQ(control->wValue, 0xD404);
  EXPECT_EQ(control->wIndex, 0xB2C3);
  EXPECT_EQ(control->wLength, 0xEEA1);
  EXPECT_EQ(control->timeout, 0xEEEEEEEEU);
  const auto string = ReadStringRequest(bytes);
  EXPECT_EQ(string->index, 0x80);
  EXPECT_EQ(string->langId, 0x0409);
  EXPECT_EQ(string->length, 0xA1B2C3D4U);
  const auto alt = ReadAltSettingRequest(Payload().U32(3).U32(0xFFFFFFFE).Exact());
  EXPECT_EQ(alt->interfaceNumber, 3U);
  EXPECT_EQ(alt->altSetting, 0xFFFFFFFEU);
}

}  // namespace
}  // namespace vel
