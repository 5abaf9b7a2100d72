#include <libusb-1.0/libusb.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Commands.h"
#include "Pump.h"
#include "Served.h"

namespace vel::vm {
namespace {

long long EntriesOf(pid_t pid, const char* folder) {
  const std::filesystem::path path = "/proc/" + std::to_string(pid) + "/" + folder;
  return std::distance(std::filesystem::directory_iterator(path), {});
}

}  // namespace

std::string Rounds(const std::string& place, Arguments arguments) {
  const int rounds = std::stoi(arguments[0]);
  constexpr int kSettled = 3;
  Served served(place);
  RemoteDevice& remote = served.Remote();
  long long descriptors = 0;
  long long threads = 0;
  for (int round = 1; round <= rounds; ++round) {
    served.Take();
    const std::uint8_t source = served.Endpoint(0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
    const std::uint8_t silent = served.Endpoint(1, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
    for (int i = 0; i < 8; ++i) {
      remote.SubmitTransfer(Command::kBulkTransfer, silent, 4096, {}, [](const TransferReply&) {});
    }
    RequireWhole(remote.Transfer(Command::kBulkTransfer, source, 16384), 16384);
    // Every other time the close finds transfers in flight and the interfaces claimed.
    if (round % 2 == 0) {
      served.GiveBack();
    } else {
      RequireEqual(remote.Status(Command::kCloseUsbDev), 0, "close");
    }
    if (round == kSettled) {
      descriptors = EntriesOf(served.Process().Pid(), "fd");
      threads = EntriesOf(served.Process().Pid(), "task");
    }
  }
  RequireEqual(EntriesOf(served.Process().Pid(), "fd"), descriptors, "descriptors after all rounds");
  RequireEqual(EntriesOf(served.Process().Pid(), "task"), threads, "threads after all rounds");
  served.Done();
  return std::to_string(rounds) + " rounds, " + std::to_string(descriptors) + " descriptors and " +
         std::to_string(threads) + " threads before and after";
}

std::string Unplug(const std::string& place, Arguments arguments) {
  std::uint64_t whole = 0;  // Counted as long as the service answers.
  Served served(place);
  served.Take();
  const std::uint8_t source = served.Endpoint(0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
  constexpr std::uint64_t kPullAfter = 50;
  try {
    RunPump(served.Remote(), {.endpoint = source, .count = 1U << 20U, .depth = 16}, nullptr,
            [&](std::uint64_t, const TransferReply& reply) {
              RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
              if (++whole == kPullAfter) {
                std::ofstream(arguments[0]) << std::endl;
                throw Failure("the gadget is out");
              }
            });
  } catch (const std::exception& expected) {
    Require(whole >= kPullAfter, std::string("before the gadget is pulled out: ") + expected.what());
  }
  const CommandProcess::Ending ending = served.Process().Await();
  RequireEqual(ending.status, 1, "exit status (" + ending.messages + ")");
  Require(ending.messages.find("virtusb: the device is gone") != std::string::npos,
          "no message that the device left: " + ending.messages);
  return "ended with a message";
}

}  // namespace vel::vm
