// A byte stream in any pieces gives the packets that it gives whole. Input: 4 bytes with the sizes
// of the pieces, in turn, then the stream.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Require.h"
#include "remote/PacketFramer.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Outcome {
  std::vector<Bytes> packets;
  std::string error;
  bool insidePacket = false;

  bool operator==(const Outcome&) const = default;
};

// A size of 0 is the whole rest.
Outcome Frame(std::span<const std::uint8_t> stream, std::span<const std::uint8_t> sizes) {
  Outcome outcome;
  PacketFramer framer([&outcome](std::unique_ptr<VelPacket> packet) {
    Require(packet->GetPacketSize() == packet->Wire().size(), "a packet holds what its header counts");
    outcome.packets.emplace_back(packet->Wire().begin(), packet->Wire().end());
  });
  bool goesOn = true;
  for (std::size_t i = 0; !stream.empty(); ++i) {
    const std::size_t size = sizes.empty() || sizes[i % sizes.size()] == 0 ? stream.size() : sizes[i % sizes.size()];
    const auto piece = stream.first(std::min(size, stream.size()));
    const Bytes copy(piece.begin(),
                     piece.end());  // Of its own, so that reading on into the next one shows.
    const bool went = framer.Feed(copy);
    Require(went == framer.Error().empty(), "a stream ends with a reason, and only then");
    Require(goesOn || !went, "an ended stream stays ended");
    goesOn = went;
    stream = stream.subspan(piece.size());
  }
  outcome.error = framer.Error();
  outcome.insidePacket = framer.InsidePacket();
  return outcome;
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kSizes = 4;
  const std::span<const std::uint8_t> input(data, size);
  const auto sizes = input.first(std::min(kSizes, size));
  const auto stream = input.subspan(sizes.size());
  vel::Require(vel::Frame(stream, sizes) == vel::Frame(stream, {}), "pieces give what the whole gives");
  return 0;
}
