// Mass storage over bulk transfers alone (Bulk-Only Transport 1.0), SCSI commands within.
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <iterator>

#include "Commands.h"
#include "Patterns.h"
#include "Require.h"
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
  struct Outcome {
    std::uint8_t status = 0;  // Of the command: 0 good, 1 failed.
    std::vector<std::uint8_t> data;
  };

  explicit Medium(RemoteDevice& remote) : mRemote(remote) {
    const ConfigModel config = ConfigOf(remote);
    mIn = EndpointOf(config, 0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
    mOut = EndpointOf(config, 0, Way::kOut, LIBUSB_TRANSFER_TYPE_BULK);
  }

  Outcome In(const Cdb& cdb, std::uint32_t length) {
    SendCommand(cdb, length, 0x80);
    Outcome outcome;
    if (length > 0) {
      TransferReply reply = mRemote.Transfer(Command::kBulkTransfer, mIn, length);
      outcome.data = std::move(reply.data);
      if (reply.status == LIBUSB_TRANSFER_STALL) {
        ClearHalt();
      }
    }
    outcome.status = ReadStatus();
    return outcome;
  }

  Outcome Out(const Cdb& cdb, std::span<const std::uint8_t> data) {
    SendCommand(cdb, static_cast<std::uint32_t>(data.size()), 0);
    Outcome outcome;
    mRemote.Transfer(Command::kBulkTransfer, mOut, static_cast<std::uint32_t>(data.size()), data);
    outcome.status = ReadStatus();
    return outcome;
  }

  // How often the device halted its IN endpoint.
  int Stalls() const { return mStalls; }

 private:
  void SendCommand(const Cdb& cdb, std::uint32_t length, std::uint8_t direction) {
    std::array<std::uint8_t, 31> cbw = {'U', 'S', 'B', 'C'};
    ++mTag;
    std::memcpy(&cbw[4], &mTag, sizeof mTag);
    std::memcpy(&cbw[8], &length, sizeof length);
    cbw[12] = direction;
    cbw[14] = static_cast<std::uint8_t>(cdb.size());
    std::ranges::copy(cdb, &cbw[15]);
    RequireEqual(mRemote.Transfer(Command::kBulkTransfer, mOut, cbw.size(), cbw).status, LIBUSB_TRANSFER_COMPLETED,
                 "status of a command block");
  }

  void ClearHalt() {
    ++mStalls;
    const ControlSetup clearHalt{0x02, LIBUSB_REQUEST_CLEAR_FEATURE, 0, mIn, 0};
    RequireEqual(mRemote.ControlTransfer(clearHalt).value, 0, "clear halt");
  }

  // A device that halts its endpoint instead of the status sends the status after the halt is
  // cleared (figure 2).
  std::uint8_t ReadStatus() {
    TransferReply reply = mRemote.Transfer(Command::kBulkTransfer, mIn, kCswSize);
    if (reply.status == LIBUSB_TRANSFER_STALL) {
      ClearHalt();
      reply = mRemote.Transfer(Command::kBulkTransfer, mIn, kCswSize);
    }
    RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status of a command status");
    RequireEqual(static_cast<long long>(reply.data.size()), kCswSize, "bytes of a command status");
    std::uint32_t tag = 0;
    std::memcpy(&tag, &reply.data[4], sizeof tag);
    Require(std::memcmp(reply.data.data(), "USBS", 4) == 0 && tag == mTag, "a status is of another command");
    return reply.data[12];
  }

  RemoteDevice& mRemote;
  std::uint8_t mIn = 0;
  std::uint8_t mOut = 0;
  std::uint32_t mTag = 0;
  int mStalls = 0;
};

std::vector<std::uint8_t> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  return {bytes.begin(), bytes.end()};
}

// A medium that was just given to its redirector says "unit attention" first.
void AwaitReady(Medium& medium) {
  constexpr int kAttempts = 10;
  for (int i = 0; i < kAttempts && medium.In({}, 0).status != 0; ++i) {
    medium.In({0x03, 0, 0, 0, 18}, 18);  // REQUEST SENSE takes the reason away.
  }
}

std::uint32_t BlockCount(Medium& medium) {
  const Medium::Outcome capacity = medium.In(BlockCommand(0x25, 0, 0), 8);
  Require(capacity.status == 0 && capacity.data.size() == 8, "READ CAPACITY fails");
  const auto& b = capacity.data;
  RequireEqual(b[6] << 8U | b[7], kBlock, "block size");
  return (std::uint32_t{b[0]} << 24U | std::uint32_t{b[1]} << 16U | std::uint32_t{b[2]} << 8U | b[3]) + 1;
}

std::vector<std::uint8_t> ReadAll(Medium& medium, std::uint32_t blocks) {
  std::vector<std::uint8_t> all;
  for (std::uint32_t at = 0; at < blocks; at += kPieceBlocks) {
    const std::uint32_t count = std::min(kPieceBlocks, blocks - at);
    const Medium::Outcome piece = medium.In(BlockCommand(0x28, at, count), count * kBlock);
    Require(piece.status == 0 && piece.data.size() == std::size_t{count} * kBlock,
            "READ(10) of block " + std::to_string(at) + " fails");
    all.insert(all.end(), piece.data.begin(), piece.data.end());
  }
  return all;
}

void ReadBeyondTheEndFails(Medium& medium, std::uint32_t blocks) {
  const Medium::Outcome beyond = medium.In(BlockCommand(0x28, blocks, 8), 8 * kBlock);
  // A device may fill what it does not have (Bulk-Only Transport 1.0, 6.7.2): never with bytes of
  // the medium.
  Require(std::ranges::all_of(beyond.data, [](std::uint8_t byte) { return byte == 0; }),
          "a read beyond the end yields " + std::to_string(beyond.data.size()) + " bytes that are not filler");
  RequireEqual(beyond.status, 1, "result of a read beyond the end");
  const std::vector<std::uint8_t> sense = medium.In({0x03, 0, 0, 0, 18}, 18).data;
  Require(sense.size() >= 13 && (sense[2] & 0x0FU) == 5 && sense[12] == 0x21, "the sense data do not name the range");
}

}  // namespace

std::string Storage(const SysDevice& device, Arguments arguments) {
  Served served(device);
  served.Take();
  Medium medium(served.Remote());
  AwaitReady(medium);
  const std::uint32_t blocks = BlockCount(medium);
  Require(ReadAll(medium, blocks) == ReadFile(arguments[0]), "the medium's bytes are not those of " + arguments[0]);
  ReadBeyondTheEndFails(medium, blocks);
  std::string proven = std::to_string(blocks / 2048) + " MiB read equal; a read beyond the end fails, " +
                       std::to_string(medium.Stalls()) + " stalls";
  if (arguments[1] == "written") {
    Require(medium.Stalls() > 0, "the gadget never halted its endpoint");
    std::vector<std::uint8_t> piece(std::size_t{kPieceBlocks} * kBlock);
    FillUniquePattern(piece, 0);
    constexpr std::uint32_t kAt = 1000;
    RequireEqual(medium.Out(BlockCommand(0x2A, kAt, kPieceBlocks), piece).status, 0, "WRITE(10)");
    RequireEqual(medium.In(BlockCommand(0x35, 0, 0), 0).status, 0, "SYNCHRONIZE CACHE");
    const std::vector<std::uint8_t> file = ReadFile(arguments[0]);
    Require(std::ranges::equal(std::span(file).subspan(std::size_t{kAt} * kBlock, piece.size()), piece),
            "what was written is not in " + arguments[0]);
    proven += "; " + std::to_string(piece.size() >> 10U) + " KiB written";
  }
  served.Done();
  return proven;
}

}  // namespace vel::vm
