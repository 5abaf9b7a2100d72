// A byte stream in any pieces gives the packets that it gives whole. Input: 4 bytes with the sizes
// of the pieces, in turn, then the stream.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Pieces.h"
#include "remote/PacketFramer.h"
#include "support/ReadInto.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Outcome {
  std::vector<Bytes> packets;
  std::string error;
  bool insidePacket = false;

  bool operator==(const Outcome&) const = default;
};

Outcome Frame(Pieces stream) {
  Outcome outcome;
  PacketFramer framer([&outcome](std::unique_ptr<VelPacket> packet) {
    Require(packet->GetPacketSize() == packet->Wire().size(), "a packet holds what its header counts");
    outcome.packets.emplace_back(packet->Wire().begin(), packet->Wire().end());
  });
  bool goesOn = true;
  while (!stream.AtEnd()) {
    const auto piece = stream.Next();
    const Bytes copy(piece.begin(), piece.end());  // Of its own, so that reading on into the next one shows.
    const bool went = ReadInto(framer, copy);
    Require(went == framer.Error().empty(), "a stream ends with a reason, and only then");
    Require(goesOn || !went, "an ended stream stays ended");
    goesOn = went;
  }
  outcome.error = framer.Error();
  outcome.insidePacket = framer.InsidePacket();
  return outcome;
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vel::RequireSameInPieces({data, size}, vel::Frame);
  return 0;
}
