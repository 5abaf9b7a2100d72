// A hostile USB/IP client: its stream in any pieces gives the commands that it gives whole, whatever it is, and none
// that lies outside its bounds. Input: 4 bytes with the sizes of the pieces, in turn, then the stream.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Pieces.h"
#include "far/UsbipWire.h"
#include "protocol/Requests.h"

namespace vel {
namespace {

// What came of a stream, written down so that two can be compared.
struct Outcome {
  std::vector<std::uint32_t> commands;
  std::string error;

  bool operator==(const Outcome&) const = default;
};

void Note(Outcome& outcome, const Urb& urb) {
  Require(urb.length <= kMaxTransferBytes && urb.packets.size() <= kMaxIsoPackets, "a URB is within its bounds");
  Require((urb.endpoint & 0x7FU) < 16, "an endpoint has four bits");
  Require(urb.data.size() == (urb.IsIn() ? 0 : urb.length), "an OUT URB has its data");
  outcome.commands.insert(outcome.commands.end(), {urb.seqnum, urb.endpoint, urb.length, urb.setup.wLength});
  for (const UrbPacket& packet : urb.packets) {
    Require(packet.offset + packet.length <= urb.length, "a packet lies in its URB");
    outcome.commands.push_back(packet.length);
  }
  outcome.commands.insert(outcome.commands.end(), urb.data.begin(), urb.data.end());
}

Outcome Read(Pieces stream) {
  Outcome outcome;
  UsbipReader reader;
  Urb urb;
  UnlinkRequest unlink;
  while (!stream.AtEnd() && outcome.error.empty()) {
    const std::span<std::uint8_t> room = reader.Room();
    Require(!room.empty(), "there is always room");
    const auto piece = stream.Next(room.size());
    std::ranges::copy(piece, room.begin());
    reader.Filled(piece.size());
    for (bool more = true; more;) {
      switch (reader.Next(urb, unlink)) {
        case UsbipReader::Got::kUrb:
          Note(outcome, urb);
          break;
        case UsbipReader::Got::kUnlink:
          outcome.commands.insert(outcome.commands.end(), {unlink.seqnum, unlink.target});
          break;
        case UsbipReader::Got::kError:
          outcome.error = reader.Error();
          Require(!outcome.error.empty(), "a stream ends with a reason");
          [[fallthrough]];
        case UsbipReader::Got::kNothing:
          more = false;
      }
    }
  }
  return outcome;
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> input(data, size);
  vel::RequireSameInPieces(input, vel::Read);
  if (input.size() >= vel::kBusIdBytes) {
    static_cast<void>(vel::ReadOperation(input.first<vel::kOperationHeaderBytes>()));
    vel::Require(vel::ReadBusId(input.first<vel::kBusIdBytes>()).size() <= vel::kBusIdBytes, "a bus id is bounded");
  }
  return 0;
}
