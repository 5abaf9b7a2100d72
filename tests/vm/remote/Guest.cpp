// Programs of the guest: libusb on the emulated raw device, and on a gadget, as they are attached to this machine's
// bus.
#include <libusb-1.0/libusb.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "Checks.h"
#include "Commands.h"
#include "support/GuestDevice.h"

namespace vel::vm {
namespace {

constexpr unsigned kTimeout = 5000;
constexpr int kPacket = 1024;
constexpr std::uint8_t kBulkIn = 0x81;
constexpr std::uint8_t kBulkOut = 0x01;
constexpr std::uint8_t kInterruptOut = 0x02;
constexpr std::uint8_t kInterruptIn = 0x82;
constexpr std::uint8_t kIsoOut = 0x03;
constexpr std::uint8_t kIsoIn = 0x83;

// From 255 down to 1, and anew with each transfer that the guest's kernel makes of what it is asked for.
bool IsPattern(std::span<const std::uint8_t> bytes) {
  std::uint8_t next = 255;
  for (const std::uint8_t byte : bytes) {
    if (byte != next && byte != 255) {
      return false;
    }
    next = byte == 1 ? 255 : static_cast<std::uint8_t>(byte - 1);
  }
  return true;
}

void LIBUSB_CALL Count(libusb_transfer* transfer) {
  --*static_cast<int*>(transfer->user_data);
}

void MoveData(const GuestDevice& raw) {
  std::vector<std::uint8_t> buffer(1U << 20U);
  int moved = 0;
  RequireEqual(
      libusb_bulk_transfer(raw.Handle(), kBulkIn, buffer.data(), static_cast<int>(buffer.size()), &moved, kTimeout), 0,
      "bulk IN");
  Require(moved == static_cast<int>(buffer.size()) && IsPattern(buffer), "bulk IN's bytes");
  RequireEqual(libusb_bulk_transfer(raw.Handle(), kBulkOut, buffer.data(), moved, &moved, kTimeout), 0, "bulk OUT");
  RequireEqual(libusb_interrupt_transfer(raw.Handle(), kInterruptIn, buffer.data(), 64, &moved, kTimeout), 0,
               "interrupt IN");
  Require(moved == 64 && IsPattern(std::span(buffer).first(64)), "interrupt IN's bytes");
  RequireEqual(libusb_interrupt_transfer(raw.Handle(), kInterruptOut, buffer.data(), 64, &moved, kTimeout), 0,
               "interrupt OUT");
}

void MoveIso(const GuestDevice& raw, std::uint8_t endpoint) {
  constexpr int kPackets = 32;  // More than the emulated device takes at once.
  constexpr int kSize = 64;
  std::vector<std::uint8_t> buffer(static_cast<std::size_t>(kPackets * kSize));
  const LibusbTransferPtr transfer(libusb_alloc_transfer(kPackets));
  int left = 1;
  libusb_fill_iso_transfer(transfer.get(), raw.Handle(), endpoint, buffer.data(), static_cast<int>(buffer.size()),
                           kPackets, Count, &left, kTimeout);
  libusb_set_iso_packet_lengths(transfer.get(), kSize);
  RequireEqual(libusb_submit_transfer(transfer.get()), 0, "isochronous submission");
  raw.Await(left);
  RequireEqual(transfer->status, LIBUSB_TRANSFER_COMPLETED, "isochronous status");
  for (int i = 0; i < kPackets; ++i) {
    const libusb_iso_packet_descriptor& packet = transfer->iso_packet_desc[i];
    RequireEqual(packet.status, LIBUSB_TRANSFER_COMPLETED, "isochronous packet status");
    RequireEqual(packet.actual_length, kSize, "isochronous packet length");
  }
  Require(endpoint == kIsoOut || IsPattern(buffer), "isochronous bytes");
}

// Transfers of the bulk endpoint and of another that are cancelled as soon as they are submitted, so that unlinks race
// with answers. How many the unlink reached.
int CancelMany(const GuestDevice& raw, int count, std::uint8_t other) {
  constexpr int kAtOnce = 32;
  std::array<std::uint8_t, kPacket> buffer{};
  int cancelled = 0;
  for (int done = 0; done < count; done += kAtOnce) {
    std::vector<LibusbTransferPtr> transfers;
    int left = 0;
    for (int i = 0; i < kAtOnce; ++i) {
      transfers.emplace_back(libusb_alloc_transfer(0));
      const std::uint8_t endpoint = i % 2 == 0 ? kBulkIn : other;
      libusb_fill_bulk_transfer(transfers.back().get(), raw.Handle(), endpoint, buffer.data(), kPacket, Count, &left,
                                0);
      transfers.back()->type = endpoint == kBulkIn ? LIBUSB_TRANSFER_TYPE_BULK : LIBUSB_TRANSFER_TYPE_INTERRUPT;
      RequireEqual(libusb_submit_transfer(transfers.back().get()), 0, "submission");
      ++left;
    }
    std::ranges::for_each(transfers, [](const LibusbTransferPtr& each) { libusb_cancel_transfer(each.get()); });
    raw.Await(left);
    cancelled += static_cast<int>(std::ranges::count_if(
        transfers, [](const LibusbTransferPtr& each) { return each->status == LIBUSB_TRANSFER_CANCELLED; }));
  }
  return cancelled;
}

}  // namespace

std::string Guest(const std::string& place, Arguments arguments) {
  const GuestDevice raw(place);
  MoveData(raw);
  MoveIso(raw, kIsoIn);
  MoveIso(raw, kIsoOut);
  const int count = std::stoi(arguments[0]);
  const int cancelled = CancelMany(raw, count, kInterruptIn);
  MoveData(raw);
  return "bulk, interrupt and isochronous both ways; " + std::to_string(cancelled) + " of " + std::to_string(count) +
         " transfers cancelled";
}

std::string Cancels(const std::string& place, Arguments arguments) {
  const GuestDevice raw(place);
  const int cancelled = CancelMany(raw, std::stoi(arguments[0]), kBulkIn);
  std::array<std::uint8_t, kPacket> buffer{};
  int moved = 0;
  RequireEqual(libusb_bulk_transfer(raw.Handle(), kBulkIn, buffer.data(), kPacket, &moved, kTimeout), 0, "bulk IN");
  RequireEqual(moved, kPacket, "bulk IN's bytes");
  return std::to_string(cancelled) + " of " + arguments[0] + " transfers cancelled while data flowed";
}

std::string Hold(const std::string& place, Arguments /*arguments*/) {
  const GuestDevice raw(place);
  static_cast<void>(std::puts("held"));
  static_cast<void>(std::fflush(stdout));
  pause();
  return "";
}

}  // namespace vel::vm
