// 100,000 random and mutated packets for each emulated device.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "VirtUsbDriver.h"
#include "remote/RequestBuilder.h"
#include "support/CapturingLog.h"
#include "support/Limits.h"
#include "support/RecordingDeviceBase.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int kPackets = 100'000;

// Requests of any code, or of a known one, whose fields are mostly such that they go far, and sometimes anything.
class PacketSource {
 public:
  explicit PacketSource(std::uint32_t seed) : mRandom(seed) {}

  std::unique_ptr<VelPacket> Next() {
    const Command command =
        Below(8) == 0 ? static_cast<Command>(mRandom()) : kCommands[Below(kCommands.size())].command;
    const CommandInfo* info = FindCommand(static_cast<std::uint16_t>(command));
    const std::uint32_t fields = info == nullptr ? 0 : info->fieldBytes;
    Bytes payload(Below(8) == 0 ? Below(48) : fields + Below(400));
    std::generate(payload.begin(), payload.end(), [this] { return static_cast<std::uint8_t>(mRandom()); });
    const auto put = [&payload](std::size_t at, std::uint32_t value) {
      if (payload.size() >= at + sizeof value) {
        std::memcpy(&payload[at], &value, sizeof value);
      }
    };
    const bool plausible = payload.size() >= fields && Below(4) != 0;
    if (info != nullptr && info->reply == ReplyKind::kAsync) {
      put(0, mRandom() & 0x83U);
      put(4, Below(50));
      put(fields - 4, plausible ? static_cast<std::uint32_t>(payload.size()) - fields : Interesting());
    }
    if (plausible && command == Command::kIsochTransfer) {
      const std::uint32_t packets = Below(1 + (static_cast<std::uint32_t>(payload.size()) - fields) / 16);
      put(8, packets);
      for (std::uint32_t i = 0; i < packets; ++i) {
        put(fields + 16 * i + 4, Below(16) == 0 ? Interesting() : Below(200));
      }
    } else if (plausible && command == Command::kControlTransfer) {
      put(0, mRandom() & 0x03FF0FFFU);  // Low requests and values,
      put(4, mRandom() & 0x01FF0007U);  // low indexes, and up to 511 bytes.
    } else if (command == Command::kCancelTransfer) {
      put(0, Below(50));
    }
    auto packet = BuildRequest(command, {static_cast<std::uint8_t>(mRandom()), Below(100)}, payload);
    if (Below(8) == 0) {  // A header that lies about the length.
      const std::uint32_t length = Interesting();
      std::memcpy(packet->MutableWire().data() + VelPacket::kLengthOffset, &length, sizeof length);
    }
    packet->MutableWire()[VelPacket::kByteOrderOffset] = static_cast<std::uint8_t>(Below(2));
    return packet;
  }

 private:
  std::uint32_t Below(std::size_t bound) { return static_cast<std::uint32_t>(mRandom() % bound); }

  std::uint32_t Interesting() {
    constexpr std::array<std::uint32_t, 14> kValues = {
        0, 1, 2, 7, 16, 18, 300, 4096, 0x4000001, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};
    return kValues[Below(kValues.size())];
  }

  std::mt19937 mRandom;
};

class Flood : public ::testing::TestWithParam<std::uint16_t> {};

TEST_P(Flood, LeavesTheDeviceAnsweringAndClosable) {
  const CapturingLog log(OSKELO_LOG_OFF);
  RecordingDeviceBase remote({.productId = GetParam()});
  std::atomic<std::size_t> malformed{0};
  constexpr std::uint32_t kLastDevId = 1000;
  std::promise<Bytes> speed;
  remote.OnSend([&](const Reply& reply) {
    malformed += reply.wellFormed ? 0 : 1;
    if (reply.devId == kLastDevId) {
      speed.set_value(reply.payload);
    }
  });
  remote.CountRepliesOnly();
  remote.AnswerFailedTransfers();  // So that pending transfers are answered too, at the latest when closing.
  auto driver = std::make_unique<VirtUsbDriver>(&remote);
  ASSERT_EQ(driver->Init(), 0);

  PacketSource source(GetParam());
  std::size_t answered = 0;
  for (int i = 0; i < kPackets; ++i) {
    auto packet = source.Next();
    const CommandInfo* info = FindCommand(packet->GetCommand());
    answered += info != nullptr && info->reply != ReplyKind::kNone ? 1 : 0;
    driver->onEvent(std::move(packet));
  }
  EXPECT_GT(answered, std::size_t{kPackets} / 2) << "the packets are not worth much";
  driver->onEvent(BuildRequest(Command::kGetDeviceSpeed, {.reqId = 1, .devId = kLastDevId}));
  ++answered;
  auto answer = speed.get_future();
  ASSERT_EQ(answer.wait_for(kDeadline), std::future_status::ready);
  EXPECT_EQ(answer.get(), (Bytes{LIBUSB_SPEED_FULL, 0, 0, 0}));
  const auto closing = Clock::now();
  driver->Close(0);
  EXPECT_LT(Clock::now() - closing, std::chrono::seconds(kSlowdown));
  driver.reset();
  EXPECT_EQ(remote.ReplyCount(), answered) << "not one reply for each request";
  EXPECT_EQ(malformed, 0U);
}

// Keyboard, printer, both serial adapters, the winusb and the raw device.
INSTANTIATE_TEST_SUITE_P(Devices, Flood, ::testing::Range<std::uint16_t>(0xFF01, 0xFF07));

}  // namespace
}  // namespace vel
