#ifndef VIRTUSB_TESTS_HOST_FAR_FAKE_FAR_END_H
#define VIRTUSB_TESTS_HOST_FAR_FAKE_FAR_END_H

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

#include "protocol/ByteReader.h"
#include "protocol/Commands.h"
#include "protocol/ConfigRecords.h"
#include "remote/PacketChannel.h"
#include "support/Collected.h"
#include "vel/Mutex.h"

namespace vel {

// The far end of a channel: a vendor device with bulk 0x81/0x01, interrupt 0x82 and isochronous 0x83/0x03 endpoints.
// Synchronous requests are answered at once, or with `Release` when the test says so; transfers by the test. Any
// thread.
class FakeFarEnd final : public PacketChannel {
 public:
  using Bytes = std::vector<std::uint8_t>;

  struct Sent {
    Command command;
    std::uint32_t first = 0;   // Endpoint, setting's interface, or what the payload begins with.
    std::uint32_t second = 0;  // Stream id, setting.
    std::uint32_t length = 0;  // n of a transfer.
    std::uint8_t reqId = 0;
  };

  static constexpr std::array<std::uint8_t, 18> kDevice = {18,   1,    0x00, 0x02, 0xFF, 0, 0, 64, 0x34,
                                                           0x12, 0x78, 0x56, 0,    1,    1, 2, 3,  1};

  void Start(Receiver receiver) override { mReceiver = std::move(receiver); }

  bool Send(std::unique_ptr<VelPacket> packet) override {
    const auto code = static_cast<Command>(packet->GetCommand());
    ByteReader reader(packet->PayloadBytes());
    Sent sent{code, reader.Host<std::uint32_t>(), reader.Host<std::uint32_t>(), reader.Host<std::uint32_t>()};
    if (code == Command::kIsochTransfer) {
      sent.length = reader.Host<std::uint32_t>();
    }
    sent.reqId = packet->GetReqId();
    const bool transfer = FindCommand(packet->GetCommand())->reply == ReplyKind::kAsync;
    std::optional<Bytes> reply = answer ? answer(code, packet->PayloadBytes()) : std::nullopt;
    if (!reply && !transfer && !silent) {
      reply = Answer(code, packet->PayloadBytes());
    }
    const bool held = mHolds && reply;
    if (held) {
      mHeld.Add({ReplyCode(code), sent.reqId, *reply});
    }
    mSent.Add(sent);
    if (reply && !held) {
      Reply(ReplyCode(code), sent.reqId, *reply);
    }
    return true;
  }

  // Waits for End, as a channel does for its threads.
  void Close() override { const MutexLock lock(mEnding); }

  // All that was sent since the last time, once there are `count`.
  std::vector<Sent> TakeSent(std::size_t count = 0) {
    mSent.Await(count);
    return mSent.Take();
  }
  // The streams of the transfers among them.
  std::vector<std::uint32_t> TakeStreams(std::size_t count) {
    std::vector<std::uint32_t> streams;
    for (const Sent& sent : TakeSent(count)) {
      streams.push_back(sent.second);
    }
    return streams;
  }

  void Hold() { mHolds = true; }
  // Answers what was held: a round trip is over. How many that were.
  std::size_t Release() {
    const auto held = mHeld.Take();
    for (const auto& [code, reqId, bytes] : held) {
      Reply(code, reqId, bytes);
    }
    return held.size();
  }
  void Reply(int code, int reqId, const Bytes& payload) {
    auto packet = std::make_unique<VelPacket>(static_cast<std::uint32_t>(1024 + payload.size()));
    packet->InitHeader(static_cast<std::uint8_t>(reqId), static_cast<std::uint16_t>(code), 1);
    packet->Append(payload.data(), static_cast<std::uint32_t>(payload.size()));
    mReceiver.onPacket(std::move(packet));
  }
  void Complete(Command command, std::uint32_t stream, std::uint32_t status, const Bytes& data = {},
                std::uint32_t isoPackets = 0) {
    Bytes payload;
    Put(payload, stream);
    Put(payload, status);
    if (command == Command::kIsochTransfer) {
      Put(payload, isoPackets);
    }
    payload.insert(payload.end(), data.begin(), data.end());
    Reply(static_cast<int>(command) + 1, 0, payload);
  }
  void End() {
    const MutexLock lock(mEnding);
    mReceiver.onClosed("it ended");
  }

  static void Put(Bytes& bytes, std::uint32_t value) {
    for (unsigned shift = 0; shift < 32; shift += 8) {
      bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
  }
  // A record of a serialised configuration, and the extra bytes that follow it.
  static void PutRecord(Bytes& bytes, const Bytes& fields, const Bytes& extra = {}) {
    bytes.insert(bytes.end(), fields.begin(), fields.end());
    bytes.resize(bytes.size() + 12 - fields.size());
    Put(bytes, static_cast<std::uint32_t>(extra.size()));
    bytes.insert(bytes.end(), extra.begin(), extra.end());
  }

  // What the test answers itself; transfers, too.
  std::function<std::optional<Bytes>(Command, std::span<const std::uint8_t>)> answer;
  std::int32_t address = 5;  // Above 127: emulated.
  bool silent = false;       // Synchronous requests get no other answer.

 private:
  struct EndpointBytes {
    std::uint8_t address;
    std::uint8_t type;
  };
  static constexpr std::array<EndpointBytes, 5> kEndpoints = {{{0x81, 2}, {0x01, 2}, {0x82, 3}, {0x83, 1}, {0x03, 1}}};

  static Bytes Config() {
    Bytes bytes;
    PutRecord(bytes, {9, 2, 0, 0, 1, 1, 0, 0x80, 50});
    Put(bytes, 1);
    PutRecord(bytes, {9, 4, 0, 0, kEndpoints.size(), 0xFF, 0, 0, 0});
    for (const EndpointBytes& endpoint : kEndpoints) {
      PutRecord(bytes, {7, 5, endpoint.address, endpoint.type, 64, 0, 1, 0, 0});
    }
    return bytes;
  }
  Bytes Answer(Command command, std::span<const std::uint8_t> request) const {
    if (command == Command::kGetDeviceConfig) {
      return Config();
    }
    if (command == Command::kGetDeviceDesc) {
      return {kDevice.begin(), kDevice.end()};
    }
    Bytes reply;
    if (command == Command::kControlTransfer && request[0] == 0x80 && request[1] == 6) {
      Bytes descriptor(kDevice.begin(), kDevice.end());
      if (request[3] != 1) {  // Any other: four bytes of it.
        descriptor = {4, request[3], 9, 4};
      }
      Put(reply, static_cast<std::uint32_t>(descriptor.size()));
      reply.insert(reply.end(), descriptor.begin(), descriptor.end());
      return reply;
    }
    Put(reply, static_cast<std::uint32_t>(command == Command::kGetDeviceSpeed     ? 3
                                          : command == Command::kGetDeviceAddress ? address
                                                                                  : 0));
    return reply;
  }

  Mutex mEnding;
  Receiver mReceiver;
  Collected<Sent> mSent;
  std::atomic<bool> mHolds{false};
  Collected<std::tuple<int, int, Bytes>> mHeld;
};

}  // namespace vel

#endif
