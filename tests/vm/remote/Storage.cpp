// Mass storage over bulk transfers alone (Bulk-Only Transport 1.0), SCSI commands within.
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>

#include "Commands.h"
#include "Served.h"

namespace vel::vm {
namespace {

constexpr std::uint32_t kBlock = 512;
constexpr std::uint32_t kPieceBlocks = 256;
constexpr std::size_t kCswSize = 13;

using Cdb = std::array<std::uint8_t, 10>;

Cdb BlockCommand(std::uint8_t operation, std::uint32_t block, std::uint32_t count) {
  const auto byte = [](std::uint32_t value, unsigned shift) { return static_cast<std::uint8_t>(value >> shift); };
  return {operation,      0, byte(block, 24), byte(block, 16), byte(block, 8),
          byte(block, 0), 0, byte(count, 8),  byte(count, 0),  0};
}

class Medium {
 public:
  explicit Medium(Served& served)
      : mRemote(served.Remote()),
        mIn(served.Endpoint(0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK)),
        mOut(served.Endpoint(0, Way::kOut, LIBUSB_TRANSFER_TYPE_BULK)) {}

  // Runs a command that reads `length` bytes; none come when it fails.
  std::optional<std::vector<std::uint8_t>> Read(const Cdb& cdb, std::uint32_t length) {
    std::array<std::uint8_t, 31> cbw = {'U', 'S', 'B', 'C'};
    ++mTag;
    std::memcpy(&cbw[4], &mTag, sizeof mTag);
    std::memcpy(&cbw[8], &length, sizeof length);
    cbw[12] = LIBUSB_ENDPOINT_IN;
    cbw[14] = static_cast<std::uint8_t>(cdb.size());
    std::ranges::copy(cdb, &cbw[15]);
    RequireEqual(mRemote.Transfer(Command::kBulkTransfer, mOut, cbw.size(), cbw).status, LIBUSB_TRANSFER_COMPLETED,
                 "status of a command block");
    TransferReply data;
    if (length > 0) {
      data = ReadPipe(length);
    }
    const TransferReply csw = ReadPipe(kCswSize);
    RequireWhole(csw, kCswSize);
    Require(std::memcmp(csw.data.data(), "USBS", 4) == 0 && std::memcmp(&csw.data[4], &mTag, sizeof mTag) == 0,
            "a status is of another command");
    return csw.data[12] == 0 ? std::optional(data.data) : std::nullopt;
  }

 private:
  // A device that halts its endpoint instead of data or status sends the status after the halt is cleared (figure 2).
  TransferReply ReadPipe(std::uint32_t length) {
    TransferReply reply = mRemote.Transfer(Command::kBulkTransfer, mIn, length);
    if (reply.status == LIBUSB_TRANSFER_STALL) {
      const ControlSetup clearHalt{0x02, LIBUSB_REQUEST_CLEAR_FEATURE, 0, mIn, 0};
      RequireEqual(mRemote.ControlTransfer(clearHalt).value, 0, "clear halt");
      return length == kCswSize ? mRemote.Transfer(Command::kBulkTransfer, mIn, length) : TransferReply();
    }
    return reply;
  }

  RemoteDevice& mRemote;
  const std::uint8_t mIn;
  const std::uint8_t mOut;
  std::uint32_t mTag = 0;
};

std::vector<std::uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return {bytes.begin(), bytes.end()};
}

std::uint32_t BlockCount(Medium& medium) {
  const auto capacity = medium.Read(BlockCommand(0x25, 0, 0), 8);
  Require(capacity.has_value() && capacity->size() == 8, "READ CAPACITY fails");
  const auto& b = *capacity;
  RequireEqual(b[6] << 8U | b[7], kBlock, "block size");
  return (std::uint32_t{b[0]} << 24U | std::uint32_t{b[1]} << 16U | std::uint32_t{b[2]} << 8U | b[3]) + 1;
}

}  // namespace

std::string Storage(const std::string& place, Arguments arguments) {
  Served served(place);
  served.Take();
  Medium medium(served);
  // A medium that was just given to its redirector says "unit attention" first.
  for (int i = 0; i < 10 && !medium.Read({}, 0); ++i) {
    medium.Read({0x03, 0, 0, 0, 18}, 18);  // REQUEST SENSE takes the reason away.
  }
  const std::uint32_t blocks = BlockCount(medium);
  std::vector<std::uint8_t> all;
  for (std::uint32_t at = 0; at < blocks; at += kPieceBlocks) {
    const std::uint32_t count = std::min(kPieceBlocks, blocks - at);
    const auto piece = medium.Read(BlockCommand(0x28, at, count), count * kBlock);
    Require(piece.has_value(), "READ(10) of block " + std::to_string(at) + " fails");
    all.insert(all.end(), piece->begin(), piece->end());
  }
  Require(all == ReadFile(arguments[0]), "the medium's bytes are not those of " + arguments[0]);
  served.Done();
  return std::to_string(blocks / 2048) + " MiB read equal";
}

}  // namespace vel::vm
