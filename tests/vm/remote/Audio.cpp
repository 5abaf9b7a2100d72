#include <libusb-1.0/libusb.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "Checks.h"
#include "Commands.h"
#include "support/Collected.h"
#include "support/CommandProcess.h"

namespace vel::vm {
namespace {

constexpr std::uint32_t kPackets = 32;
constexpr std::uint32_t kPacketSize = 192;  // A millisecond of 48 kHz, two channels, 16 bits.
constexpr unsigned kDepth = 8;
constexpr std::uint32_t kStreamInterface = 1;
constexpr std::uint8_t kSpeaker = 0x01;
constexpr std::size_t kFrame = 4;

// A ramp on the left, its negative on the right; what the machine plays into its file is compared
// with it.
void FillRamp(std::span<std::uint8_t> data, std::uint64_t firstFrame) {
  for (std::size_t i = 0; i + kFrame <= data.size(); i += kFrame) {
    const auto value = static_cast<std::int16_t>((firstFrame + i / kFrame) % 16000 + 1);
    const std::array<std::int16_t, 2> frame = {value, static_cast<std::int16_t>(-value)};
    std::memcpy(&data[i], frame.data(), kFrame);
  }
}

}  // namespace

std::string Audio(const std::string& place, Arguments arguments) {
  const std::uint64_t transfers = (std::stoull(arguments[0]) + kPackets - 1) / kPackets;
  Collected<TransferReply> replies;
  CommandProcess command({std::getenv("VIRTUSB"), "--module", std::getenv("VIRTUSB_MODULE"), "--log", "off", "serve",
                          place, "--stdio", "--answer-failures"},
                         kDeadline);
  RemoteDevice& remote = command.Remote();
  RequireEqual(remote.Status(Command::kOpenUsbDev), 0, "open");
  RequireEqual(remote.Status(Command::kDetachKernelDriver), 0, "detach");
  RequireEqual(remote.Status(Command::kClaimAllInterface), 0, "claim");
  RequireEqual(remote.SetInterfaceAltSetting(kStreamInterface, 1), 0, "alternate setting 1");
  const std::vector<std::uint32_t> lengths(kPackets, kPacketSize);
  std::vector<std::uint8_t> sound(std::size_t{kPackets} * kPacketSize);
  const auto start = std::chrono::steady_clock::now();
  for (std::uint64_t index = 0; index < transfers; ++index) {
    replies.Await(index < kDepth ? 0 : index - kDepth + 1);
    FillRamp(sound, index * sound.size() / kFrame);
    remote.SubmitIsoTransfer(kSpeaker, lengths, sound,
                             [&replies](TransferReply reply) { replies.Add(std::move(reply)); });
  }
  const auto all = replies.Await(transfers);
  RequireEqual(static_cast<long long>(all.size()), static_cast<long long>(transfers), "replies");
  for (const TransferReply& reply : all) {
    RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
    RequireEqual(reply.isoPackets, kPackets, "packets");
  }
  const auto taken =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  const std::uint64_t packets = transfers * kPackets;
  std::ofstream(arguments[1]) << packets * kPacketSize / kFrame;
  Require(taken * 10 >= static_cast<long long>(packets) * 9,
          "faster than the bus has frames: " + std::to_string(taken) + " ms");
  RequireEqual(remote.SetInterfaceAltSetting(kStreamInterface, 0), 0, "alternate setting 0");
  RequireEqual(command.Leave().status, 0, "exit status");
  return std::to_string(packets) + " packets in " + std::to_string(taken) + " ms";
}

}  // namespace vel::vm
