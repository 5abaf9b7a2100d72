// Any sequence of request packets into the session of an emulated device. Input: a byte that
// chooses the device and how it is served, then packets: a byte for the command, one for what is
// odd about the packet, its payload's length (2 bytes), the payload.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <utility>

#include "Require.h"
#include "VirtUsbDriver.h"
#include "oskelo/log.h"
#include "protocol/ByteReader.h"
#include "protocol/Commands.h"
#include "protocol/IsoTable.h"
#include "protocol/Requests.h"
#include "protocol/VelPacket.h"
#include "support/CountingDeviceBase.h"
#include "vel/Mutex.h"

namespace vel {
namespace {

constexpr unsigned kSettings = 2;  // That an input may choose: a camera's stream takes threads, and most of the time.

constexpr std::uint32_t kLastDevId = UINT32_MAX;  // Of the status request behind all others.

using StreamKey = std::pair<std::uint16_t, std::uint32_t>;  // Reply command and stream id.

// The remote side of the device: keeps which replies came. Any thread.
class Remote final : public CountingDeviceBase {
 public:
  using CountingDeviceBase::CountingDeviceBase;

  int Send(std::unique_ptr<VelPacket> packet, std::uint32_t waitMs) override {
    Require(packet->Wire().size() == packet->GetPacketSize(), "a reply holds what its header counts");
    const CommandInfo* request = FindCommand(static_cast<std::uint16_t>(packet->GetCommand() - 1));
    Require(request != nullptr && request->reply != ReplyKind::kNone, "a reply has the command of a request, + 1");
    if (request->reply == ReplyKind::kAsync) {
      ByteReader reader(packet->PayloadBytes());
      const auto streamId = reader.Host<std::uint32_t>();
      reader.Skip(sizeof(std::int32_t));
      Require(reader.Ok(), "the reply to a transfer has stream id and status");
      const MutexLock lock(mTransfersMutex);
      ++mTransfers[{packet->GetCommand(), streamId}];
      ++mTransferCount;
    }
    return CountingDeviceBase::Send(std::move(packet), waitMs);
  }

  std::map<StreamKey, std::size_t> Transfers() {
    const MutexLock lock(mTransfersMutex);
    return mTransfers;
  }
  std::size_t Sync() {
    const MutexLock lock(mTransfersMutex);
    return Replies() - mTransferCount;
  }

 private:
  Mutex mTransfersMutex;
  std::map<StreamKey, std::size_t> mTransfers VEL_GUARDED_BY(mTransfersMutex);
  std::size_t mTransferCount VEL_GUARDED_BY(mTransfersMutex) = 0;
};

// Lengths of some megabytes only take time: those within the bound of 64 MiB are cut.
void ShortenLength(std::span<std::uint8_t> payload, std::size_t offset) {
  constexpr std::uint32_t kShort = 64U << 10U;
  if (std::uint32_t length = 0; payload.size() >= offset + sizeof length) {
    std::memcpy(&length, payload.data() + offset, sizeof length);
    length = length <= kMaxTransferBytes ? length % kShort : length;
    std::memcpy(payload.data() + offset, &length, sizeof length);
  }
}

// Cuts the input into packets. devId counts them, so that each reply names its request.
class PacketSource {
 public:
  explicit PacketSource(std::span<const std::uint8_t> input) : mReader(input) {}

  bool AtEnd() const { return mReader.Rest().empty(); }

  std::unique_ptr<VelPacket> Next() {
    constexpr std::uint8_t kAnyCode = 0xFF;
    constexpr std::uint8_t kOtherByteOrder = 1;
    constexpr std::uint8_t kFalseLength = 2;
    const auto choice = mReader.Host<std::uint8_t>();
    const auto oddities = mReader.Host<std::uint8_t>();
    const auto code = choice == kAnyCode ? mReader.Host<std::uint16_t>() : kCommands[choice % kCommands.size()].Code();
    const auto falseLength = (oddities & kFalseLength) != 0 ? mReader.Host<std::uint32_t>() : 0;
    const auto wanted = mReader.Host<std::uint16_t>();
    const auto payload = mReader.Bytes(std::min<std::size_t>(wanted, mReader.Rest().size()));
    // The block has the packet's exact size.
    auto packet = std::make_unique<VelPacket>(VelPacket::kHeaderSize + static_cast<std::uint32_t>(payload.size()));
    packet->InitHeader(static_cast<std::uint8_t>(oddities ^ mCount), code, mCount);
    packet->Append(payload.data(), static_cast<std::uint32_t>(payload.size()));
    const std::span<std::uint8_t> wire = packet->MutableWire();
    if (const CommandInfo* command = FindCommand(code); command != nullptr && command->reply == ReplyKind::kAsync) {
      const auto own = wire.subspan(VelPacket::kHeaderSize);
      ShortenLength(own, command->fieldBytes - sizeof(std::uint32_t));
      for (std::size_t record = command->fieldBytes; record < own.size(); record += sizeof(IsoPacketRecord)) {
        ShortenLength(own, record + offsetof(IsoPacketRecord, length));
      }
    }
    wire[VelPacket::kByteOrderOffset] = oddities & kOtherByteOrder;
    if ((oddities & kFalseLength) != 0) {
      std::memcpy(wire.data() + VelPacket::kLengthOffset, &falseLength, sizeof falseLength);
    }
    ++mCount;
    return packet;
  }

 private:
  ByteReader mReader;
  std::uint32_t mCount = 0;
};

// What was asked, for comparison with what was answered.
struct Asked {
  std::size_t sync = 0;
  std::size_t descriptors = 0;
  std::map<StreamKey, std::size_t> transfers;

  void Note(const VelPacket& packet) {
    const CommandInfo* command = FindCommand(packet.GetCommand());
    if (command != nullptr && command->reply == ReplyKind::kSync) {
      // A camera that was not opened has no device descriptor to answer with.
      ++(command->command == Command::kGetDeviceDesc ? descriptors : sync);
    } else if (command != nullptr && command->reply == ReplyKind::kAsync) {
      ByteReader reader(packet.PayloadBytes());
      reader.Skip(sizeof(std::uint32_t));  // Endpoint. A stream id that is missing counts as 0.
      ++transfers[{ReplyCode(command->command), reader.Host<std::uint32_t>()}];
    }
  }
};

void Run(std::uint8_t choice, std::span<const std::uint8_t> input) {
  constexpr std::uint16_t kCamera = 0xFFFE;
  constexpr std::array<std::uint16_t, 7> kProducts = {0xFF01, 0xFF02, 0xFF03, 0xFF04, 0xFF05, 0xFF10, kCamera};
  constexpr std::uint8_t kAnswersFailures = 0x80;
  constexpr std::uint8_t kLogs = 0x40;
  const bool answersFailures = (choice & kAnswersFailures) != 0;
  oskeloLogSetLevel((choice & kLogs) != 0 ? OSKELO_LOG_DEBUG : OSKELO_LOG_OFF);
  const std::uint16_t product = kProducts[(choice & 0x3FU) % kProducts.size()];
  Remote remote(product, answersFailures);
  auto driver = std::make_unique<VirtUsbDriver>(&remote);
  Require(driver->Init() == 0, "a driver opens");
  Asked asked;
  unsigned settings = 0;
  for (PacketSource source(input); !source.AtEnd();) {
    auto packet = source.Next();
    if (packet->GetCommand() == static_cast<std::uint16_t>(Command::kSetInterfaceAltSetting) &&
        ++settings > kSettings) {
      continue;
    }
    asked.Note(*packet);
    driver->onEvent(std::move(packet));
  }
  auto status = std::make_unique<VelPacket>(VelPacket::kHeaderSize);
  status->InitHeader(0, static_cast<std::uint16_t>(Command::kGetDeviceSpeed), kLastDevId);
  asked.Note(*status);
  driver->onEvent(std::move(status));
  Require(remote.AwaitSync(kLastDevId), "the device still answers");
  driver->Close(0);
  driver.reset();
  Require(remote.Sync() >= asked.sync + (product == kCamera ? 0 : asked.descriptors) &&
              remote.Sync() <= asked.sync + asked.descriptors,
          "each synchronous command is answered once");
  const auto given = remote.Transfers();
  if (answersFailures) {
    Require(given == asked.transfers, "each transfer is answered once");
  }
  for (const auto& [key, count] : given) {
    const auto wanted = asked.transfers.find(key);
    Require(wanted != asked.transfers.end() && count <= wanted->second, "no transfer is answered twice");
  }
}

}  // namespace
}  // namespace vel

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Formats every line and writes none.
  oskeloLogSetSink([](void*, int, const char*, const char*) {}, nullptr);
  if (size > 0) {
    vel::Run(data[0], std::span(data, size).subspan(1));
  }
  return 0;
}
