// Against the kernel's source/sink and loopback functions, in one configuration.
#include <libusb-1.0/libusb.h>

#include <future>

#include "Commands.h"
#include "Pump.h"
#include "Served.h"

namespace vel::vm {
std::string Bulk(const std::string& place, Arguments arguments) {
  const std::uint64_t mib = std::stoull(arguments[0]);
  Served served(place);
  served.Take();
  RemoteDevice& remote = served.Remote();
  const auto plan = [&](std::size_t interface, Way way) {
    PumpPlan made{.endpoint = served.Endpoint(interface, way, LIBUSB_TRANSFER_TYPE_BULK)};
    made.count = (mib << 20U) / made.size;
    return made;
  };
  const PumpPlan sink = plan(0, Way::kOut);
  const std::vector<std::uint8_t> expected = SourcePattern(sink.size);
  RunPump(remote, plan(0, Way::kIn), nullptr, [&expected](std::uint64_t, const TransferReply& reply) {
    RequireWhole(reply, expected.size());
    Require(reply.data == expected, "wrong data from the source");
  });
  // The function halts its endpoint at the first byte that is not of the pattern.
  const auto sent = [&sink](std::uint64_t, const TransferReply& reply) { RequireWhole(reply, sink.size); };
  RunPump(
      remote, sink, [&expected](std::uint64_t) { return expected; }, sent);

  const PumpPlan out = plan(1, Way::kOut);
  auto reader = std::async(std::launch::async, [&remote, in = plan(1, Way::kIn)] {
    RunPump(remote, in, nullptr, [in](std::uint64_t index, const TransferReply& reply) {
      RequireWhole(reply, in.size);
      Require(reply.data == UniquePattern(in.size, index * in.size), "wrong data from the loopback");
    });
  });
  RunPump(
      remote, out, [&out](std::uint64_t index) { return UniquePattern(out.size, index * out.size); }, sent);
  reader.get();
  served.GiveBack();
  served.Done();
  return std::to_string(mib) + " MiB each from the source, to the sink, and there and back, all bytes right";
}

}  // namespace vel::vm
