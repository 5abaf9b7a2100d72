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

// What a remote side can tell of them is in the wire tests; these are the edges of what it cannot.
TEST(TransferRequest, IsCheckedAgainstWhatIsThere) {
  const struct {
    const char* name;
    bool iso;
    Payload payload;
    PayloadError error;
    std::uint32_t streamId;
    std::size_t dataSize;
  } cases[] = {
      {"only the low byte names the endpoint", false, Bulk(0xFFFFFF01, 1), kShort, 7, 0},
      {"out exact fit", true, Iso(0x03, 2, 40).IsoPacket(3).IsoPacket(5).Fill(8), kNone, 7, 40},
      {"in answer at the bound", true, Iso(0x83, 1, 16).IsoPacket(64 * kMiB - 16), kNone, 7, 16},
      {"in answer above the bound", true, Iso(0x83, 1, 16).IsoPacket(64 * kMiB - 15), kTable, 7, 0},
      {"lengths that wrap around", true, Iso(0x03, 2, 40).IsoPacket(0xFFFFFFFF).IsoPacket(9).Fill(8), kTable, 7, 0},
      {"most packets", true, Iso(0x83, 1024, 16384), kNone, 7, 0},
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

}  // namespace
}  // namespace vel
