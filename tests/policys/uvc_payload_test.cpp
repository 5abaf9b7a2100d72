// Payloads to frames: tables worked out by hand, and pictures cut into payloads at random against
// an independent statement of the rules.
#include <algorithm>
#include <array>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "policys/UVCFrameAssembler.h"
#include "policys/UVCUtil.h"
#include "protocol/IsoTable.h"
#include "support/CapturingLog.h"

namespace vel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

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
    if (withoutMemory > 0) {
      --withoutMemory;
      return {};
    }
    mBlock = std::vector<std::uint8_t>(mSize);
    return mBlock;
  }
  void TakeFrame(std::span<std::uint8_t> frame, const UVCFrameStamp& stamp) override {
    EXPECT_EQ(frame.data(), mBlock.data());
    texts.emplace_back(frame.begin(), frame.end());
    stamps.push_back(stamp);
    mBlock.clear();
  }

  int withoutMemory = 0;
  std::vector<std::string> texts;
  std::vector<UVCFrameStamp> stamps;

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

TEST(UVCPayloads, AreStampedCountedAndLogged) {
  Frames frames(4);
  UVCFrameAssembler assembler(frames);
  const CapturingLog log;
  const auto before = static_cast<std::int64_t>(UVCUtil::GetTimeMs());
  assembler.ParseFrameData(Transfer(Payloads{{0, "abc"}, {0, "de"}, {kFid | kEof, "f"}}), 3);
  EXPECT_THAT(log.Messages(),
              ElementsAre("Debug:Error frame length: 3, iso num: 1, actural len: 14", "Debug:ee 0 ee ee ee ee ee ee",
                          "Debug:[UVC tuning] fid @ 2, header: 0x3",
                          StartsWith("Debug:[UVC tuning] Get new raw frame: index[0] length[3] timestamp["),
                          "Debug:[UVC tuning]eof @ 2, header: 0x3",
                          StartsWith("Debug:[UVC tuning] Get new raw frame: index[1] length[1] timestamp[")));
  while (frames.stamps.back().deltaTime == 0) {  // Until the clock has moved between two frames.
    assembler.ParseFrameData(Transfer(Payloads{{kEof, "a"}}), 1);
  }
  EXPECT_EQ(frames.stamps[0].deltaTime, 0);
  EXPECT_GE(frames.stamps[0].timestamp, before);
  EXPECT_LE(frames.stamps.back().timestamp, static_cast<std::int64_t>(UVCUtil::GetTimeMs()));
  for (std::size_t i = 1; i < frames.stamps.size(); ++i) {
    EXPECT_EQ(frames.stamps[i].index, i);
    EXPECT_EQ(frames.stamps[i].deltaTime, frames.stamps[i].timestamp - frames.stamps[i - 1].timestamp);
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

TEST(UVCPayloads, WithoutABlockCostTheirFrameAlone) {
  Frames frames(4);
  frames.withoutMemory = 1;
  UVCFrameAssembler assembler(frames);
  assembler.ParseFrameData(Transfer(Payloads{{0, "a"}, {0, "b"}, {kFid, "c"}, {0, ""}}), 4);
  assembler.ParsePayload(std::vector<std::uint8_t>{12, kEof, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 'd'});
  const std::span<std::uint8_t> block = frames.NextBlock();
  std::ranges::fill(block, std::uint8_t{'w'});
  assembler.HandOn(block.first(3));
  EXPECT_THAT(frames.texts, ElementsAre("c", "d", "www"));
  EXPECT_EQ(frames.stamps[2].index, 2U);
}

// The rules said otherwise: of the packets that count, each run with one identifier and no end in
// it is a frame, filled with what fits in turn.
std::vector<std::string> Expected(const Payloads& payloads, std::size_t frameSize) {
  Payloads counted;
  std::ranges::copy_if(payloads, std::back_inserter(counted),
                       [](const Payload& p) { return p.header == 12 && (p.info & kErr) == 0; });
  std::vector<std::string> frames(1);
  for (std::size_t i = 0; i < counted.size(); ++i) {
    const bool toggles = i > 0 && ((counted[i].info ^ counted[i - 1].info) & kFid) != 0;
    const bool ended = i > 0 && (counted[i - 1].info & kEof) != 0;
    if (toggles || ended) {
      frames.emplace_back();
    }
    if (frames.back().size() + counted[i].data.size() <= frameSize) {
      frames.back() += counted[i].data;
    }
  }
  if (counted.empty() || (counted.back().info & kEof) == 0) {
    frames.pop_back();  // Still under assembly.
  }
  std::erase(frames, std::string());
  return frames;
}

class Generator {
 public:
  explicit Generator(unsigned seed) : mRandom(seed) {}

  std::string Picture(std::size_t maxSize) {
    std::string picture(1 + Below(maxSize), '\0');
    std::ranges::generate(picture, [this] { return static_cast<char>(Below(256)); });
    return picture;
  }
  // A picture as a camera sends it, ended by the toggle alone or by end-of-frame too.
  void Cut(const std::string& picture, Payloads& payloads) {
    for (std::size_t at = 0, size = 0; at < picture.size(); at += size) {
      size = 1 + Below(40);
      payloads.push_back({mFid, picture.substr(at, size)});
      if (Below(8) == 0) payloads.push_back({mFid, ""});
    }
    if (Below(2) == 0) payloads.back().info |= kEof;
    mFid ^= kFid;
  }
  // What goes wrong on the way: lost, short, marked as broken, empty, twice.
  void Spoil(Payloads& payloads) {
    Payloads spoilt;
    for (const Payload& payload : payloads) {
      const std::size_t what = Below(24);
      const auto info = static_cast<std::uint8_t>(Below(256));
      if (what == 0) continue;
      if (what == 1) spoilt.push_back({info, "", Below(12)});
      if (what == 2) spoilt.push_back({static_cast<std::uint8_t>(info | kErr), Picture(40)});
      if (what == 3) spoilt.push_back({info, ""});
      if (what == 4) spoilt.push_back(payload);
      spoilt.push_back(payload);
    }
    payloads = std::move(spoilt);
  }
  std::size_t Below(std::size_t limit) { return mRandom() % limit; }

 private:
  std::mt19937 mRandom;
  std::uint8_t mFid = 0;
};

TEST(UVCPayloads, CutFromPicturesGiveThemBack) {
  constexpr std::size_t kFrameSize = 300;
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    Generator generator(seed);
    Payloads payloads;
    std::vector<std::string> pictures;
    for (int i = 0; i < 12; ++i) {
      pictures.push_back(generator.Picture(kFrameSize));
      generator.Cut(pictures.back(), payloads);
    }
    payloads.push_back({static_cast<std::uint8_t>(payloads.back().info ^ kFid), ""});
    ASSERT_EQ(Assembled(payloads, kFrameSize, 32), pictures);
    generator.Cut(generator.Picture(3 * kFrameSize), payloads);
    generator.Spoil(payloads);
    ASSERT_EQ(Assembled(payloads, kFrameSize, 1 + generator.Below(40)), Expected(payloads, kFrameSize));
  }
}

}  // namespace
}  // namespace vel
