#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <future>
#include <map>
#include <memory>

#include "Commands.h"
#include "Pump.h"
#include "Served.h"
#include "support/Collected.h"

namespace vel::vm {
namespace {

// Submits `count` transfers, four at a time, and cancels each. How many cancels found their transfer, and how many
// transfers were answered as cancelled.
std::pair<int, int> SubmitAndCancel(RemoteDevice& remote, std::uint8_t endpoint, int count) {
  constexpr int kGroup = 4;
  const auto answers = std::make_shared<Collected<std::pair<int, int>>>();  // Index and status.
  int found = 0;
  for (int first = 0; first < count; first += kGroup) {
    std::vector<std::uint32_t> streams;
    for (int index = first; index < first + kGroup; ++index) {
      const auto note = [answers, index](const TransferReply& reply) { answers->Add({index, reply.status}); };
      streams.push_back(remote.SubmitTransfer(Command::kBulkTransfer, endpoint, 16U << 10U, {}, note));
    }
    for (const std::uint32_t stream : streams) {
      const std::int32_t result = remote.CancelTransfer(stream);
      Require(result == 0 || result == LIBUSB_ERROR_NOT_FOUND, "cancel: " + std::to_string(result));
      found += result == 0 ? 1 : 0;
    }
  }
  const auto all = answers->Await(static_cast<std::size_t>(count));
  RequireEqual(static_cast<long long>(std::map(all.begin(), all.end()).size()), count, "transfers with a reply");
  return {found, static_cast<int>(std::ranges::count(all, LIBUSB_TRANSFER_CANCELLED, &std::pair<int, int>::second))};
}

}  // namespace

std::string Cancels(const std::string& place, Arguments arguments) {
  const int count = std::stoi(arguments[0]);
  Served served(place);
  served.Take();
  RemoteDevice& remote = served.Remote();
  const std::uint8_t source = served.Endpoint(0, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);
  const std::uint8_t silent = served.Endpoint(1, Way::kIn, LIBUSB_TRANSFER_TYPE_BULK);

  // The loopback's IN endpoint has nothing to say, so that each of its transfers is pending; the source flows
  // meanwhile.
  const PumpPlan flow{.endpoint = source, .count = 256};
  const std::vector<std::uint8_t> expected = SourcePattern(flow.size);
  auto flowing = std::async(std::launch::async, [&remote, &expected, flow] {
    RunPump(remote, flow, nullptr, [&expected](std::uint64_t, const TransferReply& reply) {
      RequireWhole(reply, expected.size());
      Require(reply.data == expected, "wrong data beside the cancels");
    });
  });
  const auto pending = SubmitAndCancel(remote, silent, count);
  RequireEqual(pending.first, count, "cancels that found their transfer");
  RequireEqual(pending.second, count, "pending transfers that were answered as cancelled");
  flowing.get();

  // Here cancel and completion race: either may win, but each transfer has one answer.
  const auto moving = SubmitAndCancel(remote, source, count);
  Require(moving.second <= moving.first, "more transfers were cancelled than cancels succeeded");
  RequireWhole(remote.Transfer(Command::kBulkTransfer, source, 16U << 10U), 16U << 10U);
  served.Done();
  return std::to_string(count) + " pending transfers cancelled while others flowed intact; of as many flowing ones " +
         std::to_string(moving.second);
}

}  // namespace vel::vm
