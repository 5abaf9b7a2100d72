#include <fcntl.h>
#include <libusb-1.0/libusb.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <future>

#include "Commands.h"
#include "Pump.h"
#include "Served.h"

namespace vel::vm {
namespace {

constexpr std::size_t kDataInterface = 1;
// CDC 1.2 (PSTN 6.3).
constexpr std::uint16_t kLineCodingSize = 7;
constexpr ControlSetup kSetLineCoding{0x21, 0x20, 0, 0, kLineCodingSize};
constexpr ControlSetup kGetLineCoding{0xA1, 0x21, 0, 0, kLineCodingSize};
constexpr ControlSetup kSetLineState{0x21, 0x22, 3, 0, 0};  // DTR and RTS.

// Control transfers with data both ways: what is set is read back.
void SetLine(RemoteDevice& remote) {
  constexpr std::array<std::uint8_t, kLineCodingSize> kCoding = {0x00, 0xC2, 0x01, 0, 0, 0, 8};  // 115200 baud.
  RequireEqual(remote.ControlTransfer(kSetLineCoding, kCoding).value, kLineCodingSize, "set line coding");
  Require(std::ranges::equal(remote.ControlTransfer(kGetLineCoding).data, kCoding),
          "the line coding is not what was set");
  RequireEqual(remote.ControlTransfer(kSetLineState).value, 0, "set control line state");
}

UniqueFd OpenRaw(const std::string& path) {
  UniqueFd tty(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
  Require(tty.IsValid(), "cannot open " + path);
  termios settings{};
  tcgetattr(tty.Get(), &settings);
  cfmakeraw(&settings);
  tcsetattr(tty.Get(), TCSANOW, &settings);
  return tty;
}

void AwaitReady(int fd, short events, const char* what) {
  pollfd ready{fd, events, 0};
  const auto limit = std::chrono::milliseconds(kLimit).count();
  Require(poll(&ready, 1, static_cast<int>(limit)) == 1 && (ready.revents & events) != 0, what);
}

std::vector<std::uint8_t> ReadTty(int tty, std::size_t size) {
  std::vector<std::uint8_t> data(size);
  for (std::size_t at = 0; at < size;) {
    AwaitReady(tty, POLLIN, "nothing arrives at the function's terminal");
    const ssize_t n = read(tty, data.data() + at, size - at);
    at += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
  }
  return data;
}

void WriteTty(int tty, std::span<const std::uint8_t> data) {
  while (!data.empty()) {
    AwaitReady(tty, POLLOUT, "the function's terminal takes nothing");
    const ssize_t n = write(tty, data.data(), data.size());
    data = data.subspan(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
  }
}

}  // namespace

std::string Acm(const std::string& place, Arguments arguments) {
  const std::size_t size = std::stoul(arguments[1]);
  const UniqueFd tty = OpenRaw(arguments[0]);
  Served served(place);
  served.Take();
  RemoteDevice& remote = served.Remote();
  SetLine(remote);

  const std::vector<std::uint8_t> sent = UniquePattern(size, 0);
  auto writer = std::async(std::launch::async, [&] { WriteTty(tty.Get(), sent); });
  std::vector<std::uint8_t> received;
  const std::uint8_t in = served.Endpoint(kDataInterface, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
  while (received.size() < size) {
    const TransferReply reply = remote.Transfer(Command::kBulkTransfer, in, 16U << 10U);
    RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status of a read");
    received.insert(received.end(), reply.data.begin(), reply.data.end());
  }
  writer.get();
  Require(received == sent, "the device sends other bytes than were written to its terminal");

  constexpr std::uint32_t kPiece = 4096;
  const std::uint8_t out = served.Endpoint(kDataInterface, Way::kOut, LIBUSB_TRANSFER_TYPE_BULK);
  auto reader = std::async(std::launch::async, [&] { return ReadTty(tty.Get(), size); });
  RunPump(
      remote, {.endpoint = out, .size = kPiece, .count = size / kPiece},
      [&](std::uint64_t index) { return UniquePattern(kPiece, size + index * kPiece); },
      [](std::uint64_t, const TransferReply& reply) { RequireWhole(reply, kPiece); });
  Require(reader.get() == UniquePattern(size, size), "the terminal gets other bytes than were written to the device");
  Served::RequireGood(served.Process().Kill(SIGTERM));
  return std::to_string(size >> 10U) + " KiB each way, all bytes right; the line coding set and read back";
}

}  // namespace vel::vm
