#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include "Commands.h"
#include "Patterns.h"
#include "Pump.h"
#include "Require.h"
#include "Served.h"

namespace vel::vm {
namespace {

struct Pending {
  Command command;
  std::uint8_t endpoint;
};

// An endpoint on which transfers can wait, if the device has one.
std::optional<Pending> FindIn(const ConfigModel& config) {
  for (const auto& settings : config.interfaces) {
    for (const EndpointModel& endpoint : settings.front().endpoints) {
      const unsigned type = endpoint.bmAttributes & 3U;
      if (endpoint.bEndpointAddress >= 0x80 && type >= LIBUSB_TRANSFER_TYPE_BULK) {
        return Pending{type == LIBUSB_TRANSFER_TYPE_BULK ? Command::kBulkTransfer : Command::kInterruptTransfer,
                       endpoint.bEndpointAddress};
      }
    }
  }
  return std::nullopt;
}

void SubmitSome(RemoteDevice& remote) {
  constexpr int kTransfers = 8;
  if (const std::optional<Pending> in = FindIn(ConfigOf(remote))) {
    for (int i = 0; i < kTransfers; ++i) {
      remote.SubmitTransfer(in->command, in->endpoint, 4096, {}, [](const TransferReply&) {});
    }
    remote.Status(Command::kGetBusNumber);  // Answered once they are submitted.
  }
}

struct Manner {
  const char* name;
  bool busy;  // With transfers in flight.
  CommandProcess::Ending (*end)(Served& served);
  int status;
};

constexpr std::array<std::uint8_t, 5> kHalfPacket = {0x27, 1, 0x02, 0x10, 0};

constexpr std::array kManners = {
    Manner{"done", false, [](Served& served) { return served.Process().Leave(); }, 0},
    Manner{"given back by requests", true,
           [](Served& served) {
             served.GiveBack();
             return served.Process().Leave();
           },
           0},
    Manner{"closed without attaching", true,
           [](Served& served) {
             RequireEqual(served.Remote().Status(Command::kCloseUsbDev), 0, "close");
             return served.Process().Leave();
           },
           0},
    Manner{"remote gone within a packet", true, [](Served& served) { return served.Process().Leave(kHalfPacket); }, 1},
    Manner{"no packet from the remote", true,
           [](Served& served) {
             constexpr std::array<std::uint8_t, 16> kNoPacket = {'G', 'E', 'T', ' '};
             return served.Process().Leave(kNoPacket);
           },
           1},
    Manner{"SIGINT", true, [](Served& served) { return served.Process().Kill(SIGINT); }, 0},
    Manner{"SIGTERM", true, [](Served& served) { return served.Process().Kill(SIGTERM); }, 0},
};

std::size_t EntriesOf(pid_t pid, const char* folder) {
  const std::filesystem::path path = "/proc/" + std::to_string(pid) + "/" + folder;
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(path), {}));
}

}  // namespace

std::string Ends(const SysDevice& device, Arguments arguments) {
  const auto manners = arguments[0] == "all" ? std::span<const Manner>(kManners) : std::span(kManners).last(1);
  const std::vector<std::string> before = device.Drivers();
  Require(std::ranges::find(before, "-") == before.end(), "drivers before: " + Join(before));
  for (const Manner& manner : manners) {
    Served served(device);
    served.Take();
    device.AwaitDrivers(std::vector<std::string>(before.size(), "usbfs"), "while redirected");
    if (manner.busy) {
      SubmitSome(served.Remote());
    }
    const CommandProcess::Ending ending = manner.end(served);
    RequireEqual(ending.status, manner.status, std::string(manner.name) + ", exit status (" + ending.messages + ")");
    Require(manner.status == 0 || ending.messages.starts_with("virtusb: "),
            std::string(manner.name) + ", no message: " + ending.messages);
    device.AwaitDrivers(before, manner.name);
  }
  return Join(before) + " back after each of " + std::to_string(manners.size()) + " ways to end";
}

std::string Rounds(const SysDevice& device, Arguments arguments) {
  const int rounds = std::stoi(arguments[0]);
  constexpr int kSettled = 3;
  Served served(device);
  RemoteDevice& remote = served.Remote();
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  for (int round = 1; round <= rounds; ++round) {
    served.Take();
    const std::uint8_t source = EndpointOf(ConfigOf(remote), 0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
    Require(remote.Transfer(Command::kBulkTransfer, source, 16384).status == LIBUSB_TRANSFER_COMPLETED,
            "a transfer of round " + std::to_string(round) + " fails");
    SubmitSome(remote);
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
  RequireEqual(static_cast<long long>(EntriesOf(served.Process().Pid(), "fd")), static_cast<long long>(descriptors),
               "descriptors after all rounds");
  RequireEqual(static_cast<long long>(EntriesOf(served.Process().Pid(), "task")), static_cast<long long>(threads),
               "threads after all rounds");
  served.Done();
  return std::to_string(rounds) + " rounds, " + std::to_string(descriptors) + " descriptors and " +
         std::to_string(threads) + " threads before and after";
}

std::string Unplug(const SysDevice& device, Arguments arguments) {
  const bool busy = arguments[1] == "busy";
  Served served(device);
  served.Take();
  RemoteDevice& remote = served.Remote();
  const auto pull = [&arguments] { std::ofstream(arguments[0]) << std::endl; };
  std::uint64_t whole = 0;
  if (busy) {
    const std::uint8_t source = EndpointOf(ConfigOf(remote), 0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
    constexpr std::uint64_t kPullAfter = 50;
    try {
      RunPump(remote, {.endpoint = source, .count = 1U << 20U, .depth = 16}, nullptr,
              [&whole, &pull](std::uint64_t, const TransferReply& reply) {
                RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
                if (++whole == kPullAfter) {
                  pull();
                }
              });
    } catch (const std::exception& expected) {
      Require(whole >= kPullAfter, std::string("before the gadget is pulled out: ") + expected.what());
    }
  } else {
    pull();
  }
  const CommandProcess::Ending ending = served.Process().Await();
  RequireEqual(ending.status, 1, "exit status (" + ending.messages + ")");
  Require(ending.messages.find("gone") != std::string::npos || ending.messages.find("unplugged") != std::string::npos,
          "no message that the device left: " + ending.messages);
  const std::size_t begin = ending.messages.find("virtusb: ");
  Require(begin != std::string::npos, "no error line: " + ending.messages);
  return std::string(busy ? "amid transfers" : "idle") + ": \"" +
         ending.messages.substr(begin, ending.messages.find('\n', begin) - begin) + "\"";
}

}  // namespace vel::vm
