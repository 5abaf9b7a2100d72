// What passes a tap, from either side: a request and what is taken for its reply make records that hold together.
// Input: a byte for the command, a byte for what is odd, the length of the request's payload (2 bytes), the payload,
// the reply's payload.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "Require.h"
#include "observe/UrbTranslation.h"
#include "protocol/ByteReader.h"
#include "remote/RequestBuilder.h"

namespace vel {
namespace {

void Write(const UsbEvent& event, std::uint32_t dataLimit) {
  std::vector<std::uint8_t> block(EventBlockSize(event, dataLimit));
  WriteEventBlock(block, event, 0, CaptureTime(1), dataLimit);
  std::uint32_t total = 0;
  std::memcpy(&total, block.data() + block.size() - sizeof total, sizeof total);
  Require(total == block.size() && total % 4 == 0, "a block ends where it says");
  Require(CutPcapng(block, block.size() - 1).recordsBehind == 1, "a record that is cut is lost");
  for (const UsbmonIsoDescriptor& packet : event.packets) {
    Require(!event.isCompletion || event.data.empty() || packet.offset + packet.length <= event.data.size(),
            "packets lie within the data");
  }
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vel::ByteReader reader(std::span(data, size));
  const vel::CommandInfo& info = vel::kCommands[reader.Host<std::uint8_t>() % vel::kCommands.size()];
  const auto oddity = reader.Host<std::uint8_t>();
  const auto length = reader.Host<std::uint16_t>();
  const auto payload = reader.Bytes(std::min<std::size_t>(length, reader.Rest().size()));
  vel::PendingUrb urb;
  vel::UsbEvent event;
  const auto request = vel::BuildRequest(info.command, {0, 1}, payload);  // The event points into it.
  if (!vel::ReadSubmission(*request, urb, event)) {
    return 0;
  }
  const std::uint32_t dataLimit = (oddity & 1) != 0 ? 3 : vel::kSnapLength;
  vel::Write(event, dataLimit);
  const auto reply = vel::BuildRequest(info.command, {0, 1}, reader.Rest());
  const std::uint16_t code = vel::ReplyCode(info.command);
  std::memcpy(reply->MutableWire().data() + vel::VelPacket::kCommandOffset, &code, sizeof code);
  urb.isPicture = info.command == vel::Command::kIsochTransfer && (oddity & 2) != 0;
  std::vector<std::uint8_t> descriptors;
  vel::Write(vel::ReadCompletion(*reply, urb, descriptors), dataLimit);
  return 0;
}
