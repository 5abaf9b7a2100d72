#include "soak/RandomPackets.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "remote/RequestBuilder.h"

namespace vel::test {
namespace {

std::uint32_t Interesting(SoakRun& run) {
  constexpr std::array<std::uint32_t, 14> kValues = {
      0, 1, 2, 7, 16, 18, 300, 4096, 0x4000001, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};
  return kValues[run.Pick(kValues.size())];
}

}  // namespace

std::unique_ptr<VelPacket> RandomPacket(SoakRun& run) {
  const Command command =
      run.OneIn(8) ? static_cast<Command>(run.random()) : kCommands[run.Pick(kCommands.size())].command;
  const CommandInfo* info = FindCommand(static_cast<std::uint16_t>(command));
  const std::uint32_t fields = info == nullptr ? 0 : info->fieldBytes;
  std::vector<std::uint8_t> payload(run.OneIn(8) ? run.Pick(48) : fields + run.Pick(400));
  std::generate(payload.begin(), payload.end(), [&run] { return static_cast<std::uint8_t>(run.random()); });
  const auto put = [&payload](std::size_t at, std::uint32_t value) {
    if (payload.size() >= at + sizeof value) {
      std::memcpy(&payload[at], &value, sizeof value);
    }
  };
  const bool plausible = payload.size() >= fields && !run.OneIn(4);
  if (info != nullptr && info->reply == ReplyKind::kAsync) {
    put(0, static_cast<std::uint32_t>(run.random()) & 0x83U);
    put(4, run.Pick(50));
    put(fields - 4, plausible ? static_cast<std::uint32_t>(payload.size()) - fields : Interesting(run));
  }
  if (plausible && command == Command::kIsochTransfer) {
    const std::uint32_t packets = run.Pick(1 + (static_cast<std::uint32_t>(payload.size()) - fields) / 16);
    put(8, packets);
    for (std::uint32_t i = 0; i < packets; ++i) {
      put(fields + 16 * i + 4, run.OneIn(16) ? Interesting(run) : run.Pick(200));
    }
  } else if (plausible && command == Command::kControlTransfer) {
    put(0, static_cast<std::uint32_t>(run.random()) & 0x03FF0FFFU);  // Low requests and values,
    put(4, static_cast<std::uint32_t>(run.random()) & 0x01FF0007U);  // low indexes, and up to 511 bytes.
  } else if (command == Command::kCancelTransfer) {
    put(0, run.Pick(50));
  }
  auto packet = BuildRequest(command, {static_cast<std::uint8_t>(run.random()), run.Pick(100)}, payload);
  if (run.OneIn(8)) {  // A header that lies about the length.
    const std::uint32_t length = Interesting(run);
    std::memcpy(packet->MutableWire().data() + VelPacket::kLengthOffset, &length, sizeof length);
  }
  packet->MutableWire()[VelPacket::kByteOrderOffset] = static_cast<std::uint8_t>(run.Pick(2));
  return packet;
}

bool IsAnswered(const VelPacket& packet) {
  const CommandInfo* info = FindCommand(packet.GetCommand());
  return info != nullptr && info->reply != ReplyKind::kNone;
}

}  // namespace vel::test
