// Against the kernel's source/sink and loopback functions, in one configuration.
#include <libusb-1.0/libusb.h>

#include <cstring>
#include <future>

#include "Commands.h"
#include "Patterns.h"
#include "Pump.h"
#include "Require.h"
#include "Served.h"

namespace vel::vm {
namespace {

void RequireWhole(const TransferReply& reply, std::size_t size) {
  RequireEqual(reply.status, LIBUSB_TRANSFER_COMPLETED, "status");
  RequireEqual(static_cast<long long>(reply.data.size()), static_cast<long long>(size), "bytes");
}

void Source(RemoteDevice& remote, PumpPlan plan) {
  RunPump(remote, plan, nullptr, [plan](std::uint64_t, const TransferReply& reply) {
    RequireWhole(reply, plan.size);
    RequireSourcePattern(reply.data);
  });
}

// The function looks at what it gets, and halts its endpoint at the first byte that is not of the
// pattern.
void Sink(RemoteDevice& remote, PumpPlan plan) {
  RunPump(
      remote, plan, [](std::uint64_t, std::span<std::uint8_t> data) { FillSourcePattern(data); },
      [plan](std::uint64_t, const TransferReply& reply) { RequireWhole(reply, plan.size); });
}

// So that the sink's silence proves something.
void SinkNoticesOneWrongByte(RemoteDevice& remote, std::uint8_t endpoint) {
  std::vector<std::uint8_t> data(64U << 10U);
  FillSourcePattern(data);
  data[data.size() / 2 + 5] ^= 0x40U;
  TransferReply reply;
  for (int i = 0; i < 3 && reply.status == LIBUSB_TRANSFER_COMPLETED; ++i) {
    reply = remote.Transfer(Command::kBulkTransfer, endpoint, static_cast<std::uint32_t>(data.size()), data);
  }
  RequireEqual(reply.status, LIBUSB_TRANSFER_STALL, "status of a transfer with a wrong byte");
  const ControlSetup clearHalt{0x02, LIBUSB_REQUEST_CLEAR_FEATURE, 0, endpoint, 0};
  RequireEqual(remote.ControlTransfer(clearHalt).value, 0, "clear halt");
}

void Loopback(RemoteDevice& remote, PumpPlan in, PumpPlan out) {
  auto reader = std::async(std::launch::async, [&remote, in] {
    RunPump(remote, in, nullptr, [in](std::uint64_t index, const TransferReply& reply) {
      RequireWhole(reply, in.size);
      RequireUniquePattern(reply.data, index * in.size);
    });
  });
  RunPump(
      remote, out,
      [out](std::uint64_t index, std::span<std::uint8_t> data) { FillUniquePattern(data, index * out.size); },
      [out](std::uint64_t, const TransferReply& reply) { RequireWhole(reply, out.size); });
  reader.get();
}

}  // namespace

std::string Bulk(const SysDevice& device, Arguments arguments) {
  const std::uint64_t mib = std::stoull(arguments[0]);
  Served served(device);
  served.Take();
  RemoteDevice& remote = served.Remote();
  const ConfigModel config = ConfigOf(remote);
  const auto plan = [&](std::size_t interface, Way way) {
    PumpPlan made{.endpoint = EndpointOf(config, interface, way, LIBUSB_TRANSFER_TYPE_BULK)};
    made.count = (mib << 20U) / made.size;
    return made;
  };
  const std::vector<std::string> bound = device.Drivers();
  Require(bound == std::vector<std::string>(bound.size(), "usbfs"), "drivers while redirected: " + Join(bound));
  Source(remote, plan(0, Way::kIn));
  Sink(remote, plan(0, Way::kOut));
  SinkNoticesOneWrongByte(remote, plan(0, Way::kOut).endpoint);
  Loopback(remote, plan(1, Way::kIn), plan(1, Way::kOut));
  served.GiveBack();
  served.Done();
  return std::to_string(mib) + " MiB from the source, " + std::to_string(mib) + " MiB to the sink, " +
         std::to_string(mib) + " MiB there and back, all bytes right; a wrong byte stalls";
}

}  // namespace vel::vm
