// What the other end of a connection may answer, to the requests of `virtusb describe` and `virtusb stream`. Input: a
// byte that chooses which; then an answer for each request: a byte for what is odd about it, its length (2 bytes), its
// payload. What is left over is taken for a picture. The connection ends with the input.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "Require.h"
#include "cmd/describe/DescriptorText.h"
#include "cmd/describe/Enumeration.h"
#include "cmd/stream/GuestCamera.h"
#include "cmd/stream/PictureBytes.h"
#include "protocol/ByteReader.h"
#include "protocol/Commands.h"
#include "remote/PacketChannel.h"
#include "remote/RemoteDevice.h"

namespace vel {
namespace {

// Answers within Send.
class Answers final : public PacketChannel {
 public:
  explicit Answers(ByteReader& reader) : mReader(reader) {}

  void Start(Receiver receiver) override { mReceiver = std::move(receiver); }
  bool Send(std::unique_ptr<VelPacket> request) override {
    constexpr std::uint8_t kOtherCommand = 0xFF;
    constexpr std::uint8_t kOtherId = 0xFE;
    if (mReader.Rest().empty()) {
      mReceiver.onClosed("the input ends");
      return false;
    }
    const auto oddity = mReader.Host<std::uint8_t>();
    const auto code =
        oddity == kOtherCommand ? mReader.Host<std::uint16_t>() : static_cast<std::uint16_t>(request->GetCommand() + 1);
    const auto wanted = mReader.Host<std::uint16_t>();
    const auto payload = mReader.Bytes(std::min<std::size_t>(wanted, mReader.Rest().size()));
    auto reply = std::make_unique<VelPacket>(VelPacket::kHeaderSize + static_cast<std::uint32_t>(payload.size()));
    reply->InitHeader(static_cast<std::uint8_t>(request->GetReqId() + (oddity == kOtherId ? 1 : 0)), code, 1);
    reply->Append(payload.data(), static_cast<std::uint32_t>(payload.size()));
    mReceiver.onPacket(std::move(reply));
    return true;
  }
  void Close() override {}

 private:
  ByteReader& mReader;
  Receiver mReceiver;
};

// What goes to a terminal moves no cursor.
void RequirePrintable(const std::string& text) {
  Require(std::ranges::none_of(text, [](char c) { return (c >= 0 && c < ' ' && c != '\n') || c == '\x7F'; }),
          "a device's text is without control characters");
}

void Describe(RemoteDevice& remote) {
  const Enumeration found = Enumerate(remote);
  RequirePrintable(DescriptorText(found));
  RequirePrintable(DescriptorSummary(found));
  Require(!DescriptorJson(found).dump().empty(), "every device is valid JSON");
}

void Stream(RemoteDevice& remote, ByteReader& reader, bool transcode) {
  GuestCamera camera(remote, transcode);
  RequirePrintable(camera.Name());
  const GuestCamera::Stream stream = camera.Negotiate(std::nullopt);
  camera.Start(stream);
  const std::vector<std::uint8_t> picture(reader.Rest().begin(), reader.Rest().end());
  if (const auto format = FormatOfPicture(picture, stream)) {
    IsKeyPicture(*format, picture);
  }
  camera.Stop();
  camera.GiveBack();
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vel::ByteReader reader(std::span(data, size));
  const auto choice = reader.Host<std::uint8_t>();
  vel::RemoteDevice remote(std::make_unique<vel::Answers>(reader), 1, std::chrono::milliseconds(0));
  try {
    if (choice % 3 == 0) {
      vel::Describe(remote);
    } else {
      vel::Stream(remote, reader, choice % 3 == 1);
    }
  } catch (const std::runtime_error&) {  // What a person is told.
  }
  return 0;
}
