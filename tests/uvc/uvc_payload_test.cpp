// Payloads to frames, by tables worked out by hand.
#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "policys/UVCUtil.h"
#include "protocol/IsoTable.h"
#include "support/CapturingLog.h"
#include "uvc/UVCFrameAssembler.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr std::uint8_t kFid = 0x01;
constexpr std::uint8_t kEof = 0x02;
constexpr std::uint8_t kErr = 0x40;

// One packet of a transfer. `header` below 12 is a packet of that many bytes and no more.
struct Payload {
  std::uint8_t info = 0;
  std::string data;
  std::size_t header = 12;
};
using Payloads = std::vector<Payload>;

std::vector<std::uint8_t> Transfer(std::span<const Payload> payloads) {
  std::vector<std::uint8_t> bytes(payloads.size() * sizeof(IsoPacketRecord));
  std::uint32_t index = 0;
  for (const Payload& payload : payloads) {
    const auto offset = static_cast<std::uint32_t>(bytes.size());
    bytes.insert(bytes.end(), payload.header, 0xEE);
    if (payload.header > 1) {
      bytes[offset + 1] = payload.info;
    }
    bytes.insert(bytes.end(), payload.data.begin(), payload.data.end());
    const auto length = static_cast<std::uint32_t>(bytes.size() - offset);
    StoreIsoRecord(bytes.data(), index++, {offset, 3072, length, 7});
  }
  bytes.shrink_to_fit();
  return bytes;
}

// Takes frames down as text. Each block is a heap block of exactly the negotiated size.
class Frames : public UVCFrameReceiver {
 public:
  explicit Frames(std::size_t size) : mSize(size) {}

  std::span<std::uint8_t> NextBlock() override {
    mBlock = std::vector<std::uint8_t>(mSize);
    return mBlock;
  }
  void TakeFrame(std::span<std::uint8_t> frame) override {
    EXPECT_EQ(frame.data(), mBlock.data());
    texts.emplace_back(frame.begin(), frame.end());
    mBlock.clear();
  }

  std::vector<std::string> texts;

 private:
  const std::size_t mSize;
  std::vector<std::uint8_t> mBlock;
};

std::vector<std::string> Assembled(std::span<const Payload> payloads, std::size_t frameSize, std::size_t perTransfer) {
  Frames frames(frameSize);
  UVCFrameAssembler assembler(frames);
  while (!payloads.empty()) {
    const std::size_t count = std::min(perTransfer, payloads.size());
    assembler.ParseFrameData(Transfer(payloads.first(count)), static_cast<std::uint32_t>(count));
    payloads = payloads.subspan(count);
  }
  return frames.texts;
}

TEST(UVCPayloads, BecomeFramesByTheRules) {
  struct Case {
    const char* name;
    Payloads payloads;
    std::vector<std::string> frames;  // Of at most 8 bytes.
  };
  const std::vector<Case> cases = {
      {"toggle", {{0, "ab"}, {0, "cd"}, {kFid, "ef"}, {0, "gh"}}, {"abcd", "ef"}},
      {"end of frame", {{0, "ab"}, {kEof, "cd"}, {kFid, "ef"}, {kFid | kEof, "gh"}}, {"abcd", "efgh"}},
      {"end of frame without toggle", {{kEof, "ab"}, {kEof, "cd"}}, {"ab", "cd"}},
      {"header-only toggle", {{0, "ab"}, {kFid, ""}, {kFid, "cd"}, {0, ""}}, {"ab", "cd"}},
      {"header-only end", {{0, "ab"}, {kEof, ""}, {kEof, ""}, {kFid | kEof, ""}}, {"ab"}},
      {"error hides end", {{0, "ab"}, {kErr | kEof, "xx"}, {0, "cd"}, {kFid, ""}}, {"abcd"}},
      {"error hides toggle", {{0, "ab"}, {kErr | kFid, "xx"}, {0, "cd"}, {kFid, ""}}, {"abcd"}},
      {"too short for a header",
       {{0, "ab"}, {kEof, "", 11}, {kFid, "", 2}, {0, "", 1}, {0, "", 0}, {kEof, "cd"}},
       {"abcd"}},
      {"overflow loses its packet alone", {{0, "abcdef"}, {0, "xyz"}, {0, "gh"}, {0, "x"}, {kFid, ""}}, {"abcdefgh"}},
      {"overflow at the end", {{0, "abcdef"}, {kEof, "xyz"}, {kFid, "gh"}, {0, ""}}, {"abcdef", "gh"}},
      {"overflow at once", {{kEof, "123456789"}, {kFid, "ab"}, {0, ""}}, {"ab"}},
      {"exactly full", {{kEof, "12345678"}}, {"12345678"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(Assembled(test.payloads, 8, 32), test.frames);
    EXPECT_EQ(Assembled(test.payloads, 8, 1), test.frames) << "one packet in each transfer";
  }
}

TEST(UVCPayloads, HeadersAreAsLongAsTheySayWhereThatCountsAndIsTrue) {
  const struct {
    std::uint8_t length;
    std::uint8_t info;
    std::string frame;  // Of the bytes "abcdefghijkl" behind the first two.
    std::string fixed;  // The same where it does not count.
  } cases[] = {{2, 0x80, "abcdefghijkl", "kl"}, {6, 0x84, "efghijkl", "kl"}, {8, 0x88, "ghijkl", "kl"},
               {12, 0x8C, "kl", "kl"},          {8, 0x80, "kl", "kl"},       {12, 0x80, "kl", "kl"},
               {0, 0x80, "kl", "kl"},           {14, 0x8C, "kl", "kl"}};
  for (const auto& [length, info, frame, fixed] : cases) {
    SCOPED_TRACE(int{length});
    for (const bool counts : {false, true}) {
      Frames frames(16);
      UVCFrameAssembler assembler(frames, counts);
      std::string payload{static_cast<char>(length), static_cast<char>(info | kEof)};
      payload += "abcdefghijkl";
      const auto* const bytes = reinterpret_cast<const std::uint8_t*>(payload.data());
      assembler.ParsePayload({bytes, payload.size()});
      for (const std::size_t shorter : {0U, 1U, 2U}) {
        assembler.ParsePayload({bytes, shorter});
      }
      EXPECT_THAT(frames.texts, ElementsAre(counts ? frame : fixed));
    }
  }
}

TEST(UVCPayloads, OutsideOfTheTransferAreSkipped) {
  // The transfer has 59 bytes.
  for (const auto& [offset, length, errors] :
       {std::array<std::uint32_t, 3>{0xFFFFFFFF, 12, 1}, {46, 14, 1}, {48, 12, 1}, {32, 0xFFFFFFFF, 1}, {59, 0, 0}}) {
    SCOPED_TRACE(offset);
    std::vector<std::uint8_t> transfer = Transfer(Payloads{{0, "ab"}, {kEof, "c"}});
    StoreIsoRecord(transfer.data(), 0, {offset, 0, length, 0});
    Frames frames(8);
    UVCFrameAssembler assembler(frames);
    const CapturingLog log(OSKELO_LOG_ERROR);
    assembler.ParseFrameData(transfer, 2);
    EXPECT_THAT(frames.texts, ElementsAre("c"));
    EXPECT_EQ(log.Count("iso packet 0"), errors);
  }
  // More packets than the transfer has room for records of.
  Frames frames(8);
  UVCFrameAssembler assembler(frames);
  assembler.ParseFrameData(std::vector<std::uint8_t>(31), 0xFFFFFFFF);
  assembler.ParseFrameData({}, 1);
  EXPECT_THAT(frames.texts, IsEmpty());
}

}  // namespace
}  // namespace vel
