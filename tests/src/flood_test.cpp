// 100,000 random and mutated packets for each emulated device.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "VirtUsbDriver.h"
#include "protocol/Requests.h"
#include "remote/RequestBuilder.h"
#include "support/CapturingLog.h"
#include "support/Limits.h"
#include "support/RecordingDeviceBase.h"

namespace vel {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int kPackets = 100'000;
constexpr std::uint64_t kMaxGrowth = 300ULL << 20U;

// Resident memory of this process.
std::uint64_t ResidentBytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return std::stoull(line.substr(6)) * 1024;
    }
  }
  ADD_FAILURE() << "no VmRSS";
  return 0;
}

class PacketSource {
 public:
  explicit PacketSource(std::uint32_t seed) : mRandom(seed) {}

  std::unique_ptr<VelPacket> Next() {
    auto packet = Below(4) == 0 ? Noise() : Plausible();
    const std::span<std::uint8_t> wire = packet->MutableWire();
    if (Below(3) == 0) {  // Some bytes of the payload are others.
      for (std::uint32_t i = 0; i < 3 && wire.size() > VelPacket::kHeaderSize; ++i) {
        const auto room = static_cast<std::uint32_t>(wire.size()) - VelPacket::kHeaderSize;
        // Not of a length's upper half: tens of megabytes per packet only take time.
        if (const std::uint32_t at = Below(room); (at & 2U) == 0) {
          wire[VelPacket::kHeaderSize + at] = static_cast<std::uint8_t>(mRandom());
        }
      }
    }
    if (Below(8) == 0) {  // A header that lies about the length.
      const std::uint32_t length = Interesting();
      std::memcpy(wire.data() + VelPacket::kLengthOffset, &length, sizeof length);
    }
    wire[VelPacket::kByteOrderOffset] = static_cast<std::uint8_t>(Below(2));
    return packet;
  }

 private:
  std::uint32_t Below(std::uint32_t bound) { return static_cast<std::uint32_t>(mRandom() % bound); }

  std::uint32_t Interesting() {
    constexpr std::array<std::uint32_t, 14> kValues = {
        0, 1, 2, 7, 16, 18, 300, 4096, 0x4000001, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFE, 0xFFFFFFFF};
    return kValues[Below(kValues.size())];
  }

  Bytes RandomBytes(std::uint32_t size) {
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<std::uint8_t>(mRandom()); });
    return bytes;
  }

  // Any code, or a known one, with anything as payload.
  std::unique_ptr<VelPacket> Noise() {
    const Command command =
        Below(2) == 0 ? static_cast<Command>(mRandom()) : kCommands[Below(kCommands.size())].command;
    Bytes payload = RandomBytes(Below(48));
    const CommandInfo* info = FindCommand(static_cast<std::uint16_t>(command));
    if (info != nullptr && info->reply == ReplyKind::kAsync && payload.size() >= info->fieldBytes) {
      const std::uint32_t length = Interesting();
      std::memcpy(payload.data() + info->fieldBytes - sizeof length, &length, sizeof length);
    }
    return BuildRequest(command, {static_cast<std::uint8_t>(mRandom()), Below(100)}, payload);
  }

  std::unique_ptr<VelPacket> Plausible() {
    const RequestId id{static_cast<std::uint8_t>(mRandom()), Below(100)};
    const auto endpoint = static_cast<std::uint8_t>(mRandom() & 0x83U);
    const std::uint32_t stream = Below(50);
    switch (Below(8)) {
      case 0:
        return BuildTransferRequest(Command::kBulkTransfer, id, endpoint, stream, Interesting(),
                                    RandomBytes(Below(300)));
      case 1:
        return BuildTransferRequest(Command::kInterruptTransfer, id, endpoint, stream, Interesting(),
                                    RandomBytes(Below(64)));
      case 2: {
        std::vector<std::uint32_t> lengths(Below(40));
        std::generate(lengths.begin(), lengths.end(), [this] { return Below(16) == 0 ? Interesting() : Below(200); });
        return BuildIsoRequest(id, endpoint, stream, lengths, RandomBytes(Below(3000)));
      }
      case 3:
        return BuildControlRequest(id,
                                   {static_cast<std::uint8_t>(mRandom()), static_cast<std::uint8_t>(Below(16)),
                                    static_cast<std::uint16_t>(Below(0x400)), static_cast<std::uint16_t>(Below(8)),
                                    static_cast<std::uint16_t>(Below(300))},
                                   Below(1000));
      case 4:
        return BuildStringRequest(id, static_cast<std::uint8_t>(mRandom()), 0x0409, Interesting());
      case 5:
        return BuildU32Request(Command::kCancelTransfer, id, stream);
      case 6:
        return BuildPolicyRequest(id, RandomBytes(Below(100)));
      default:
        return BuildRequest(kCommands[Below(kCommands.size())].command, id);
    }
  }

  std::mt19937 mRandom;
};

struct Device {
  const char* name;
  std::uint16_t productId;
};
void PrintTo(const Device& device, std::ostream* out) {
  *out << device.name;
}

class Flood : public ::testing::TestWithParam<Device> {};

TEST_P(Flood, LeavesTheDeviceAnsweringAndClosable) {
  const CapturingLog log(OSKELO_LOG_OFF);
  RecordingDeviceBase remote({.productId = GetParam().productId});
  std::atomic<std::size_t> malformed{0};
  std::atomic<bool> speedAnswered{false};
  constexpr std::uint32_t kLastDevId = 1000;
  remote.OnSend([&](const Reply& reply) {
    malformed += reply.wellFormed ? 0 : 1;
    if (reply.devId == kLastDevId) {
      speedAnswered = reply.payload == Bytes{LIBUSB_SPEED_FULL, 0, 0, 0};
    }
  });
  remote.CountRepliesOnly();
  remote.AnswerFailedTransfers();  // So that pending transfers are answered too, at the latest when
                                   // closing.
  auto driver = std::make_unique<VirtUsbDriver>(&remote);
  ASSERT_EQ(driver->Init(), 0);

  const std::uint64_t before = ResidentBytes();
  PacketSource source(GetParam().productId);
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
  const auto deadline = Clock::now() + kDeadline;
  while (Clock::now() < deadline) {
    // Counted before the look at the answer: pending transfers may leave it the last reply for now.
    const std::size_t replies = remote.ReplyCount();
    if (speedAnswered) {
      break;
    }
    ASSERT_TRUE(remote.WaitForReplies(std::min(replies + 1, answered)));
  }
  EXPECT_TRUE(speedAnswered);
  const std::uint64_t grown = std::max(ResidentBytes(), before) - before;

  const auto closing = Clock::now();
  driver->Close(0);
  EXPECT_LT(Clock::now() - closing, std::chrono::seconds(kSlowdown));
  driver.reset();
  EXPECT_EQ(remote.ReplyCount(), answered) << "not one reply for each request";
  EXPECT_EQ(malformed, 0U);
  if (kSanitized) {
    GTEST_SKIP() << "memory is not measured in an instrumented build (1 check of 5)";
  }
  EXPECT_LT(grown, kMaxGrowth);
  RecordProperty("GrownKiB", static_cast<int>(grown >> 10U));
}

INSTANTIATE_TEST_SUITE_P(Devices, Flood,
                         ::testing::Values(Device{"Keyboard", 0xFF01}, Device{"Printer", 0xFF02},
                                           Device{"Ch340", 0xFF03}, Device{"Ch9102", 0xFF04}, Device{"Winusb", 0xFF05},
                                           Device{"Raw", 0xFF06}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace vel
