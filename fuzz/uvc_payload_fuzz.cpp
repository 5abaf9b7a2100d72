// A stream of payloads, and a transfer whose packet table lies. Input: 2 bytes with the negotiated
// size, a byte with the packets of a transfer, then packets (a byte of length, the bytes); the same
// bytes again as one transfer and as one payload, as they lie.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "Require.h"
#include "oskelo/log.h"
#include "protocol/ByteReader.h"
#include "protocol/IsoTable.h"
#include "uvc/UVCFrameAssembler.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

class Frames final : public UVCFrameReceiver {
 public:
  explicit Frames(std::size_t size) : mSize(size) {}

  std::span<std::uint8_t> NextBlock() override {
    mBlock = Bytes(mSize);
    mBlock.shrink_to_fit();
    return mBlock;
  }
  void TakeFrame(std::span<std::uint8_t> frame) override {
    Require(!frame.empty() && frame.size() <= mSize, "a frame has data, and never more than was negotiated");
    Require(frame.data() == mBlock.data(), "a frame lies in the block that was handed out for it");
    bytes += frame.size();
    mBlock = {};
  }

  std::size_t bytes = 0;

 private:
  const std::size_t mSize;
  Bytes mBlock;
};

Bytes NextTransfer(ByteReader& reader, std::size_t packets) {
  Bytes transfer(packets * sizeof(IsoPacketRecord));
  for (std::size_t i = 0; i < packets; ++i) {
    const std::size_t wanted = reader.Host<std::uint8_t>();
    const auto packet = reader.Bytes(std::min(wanted, reader.Rest().size()));
    const auto length = static_cast<std::uint32_t>(packet.size());
    StoreIsoRecord(transfer.data(), i, {static_cast<std::uint32_t>(transfer.size()), length, length, 0});
    transfer.insert(transfer.end(), packet.begin(), packet.end());
  }
  transfer.shrink_to_fit();
  return transfer;
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  oskeloLogSetLevel(OSKELO_LOG_OFF);
  vel::ByteReader reader(std::span(data, size));
  const std::size_t frameSize = reader.Host<std::uint16_t>() % 2048U;
  const std::uint32_t packets = 1 + reader.Host<std::uint8_t>() % 32U;
  const vel::Bytes lying(reader.Rest().begin(), reader.Rest().end());

  vel::Frames frames(frameSize);
  vel::UVCFrameAssembler assembler(frames);
  while (!reader.Rest().empty()) {
    assembler.ParseFrameData(vel::NextTransfer(reader, packets), packets);
  }
  vel::Require(frames.bytes <= lying.size(), "a byte is in one frame at most");

  vel::Frames others(frameSize);
  vel::UVCFrameAssembler misled(others);
  misled.ParseFrameData(lying, packets);
  misled.ParseFrameData(lying, UINT32_MAX);
  misled.ParsePayload(lying);
  return 0;
}
